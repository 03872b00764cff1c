#pragma once

// A program's page, script and style sheet, compiled into it (embed.cmake).

#include <cstddef>
#include <string>

namespace tarn_web {

struct WebAsset {
  const char* path;  // "/index.html"
  const char* content_type;
  const char* data;
  std::size_t size;
};

// The embedded file served at `path`, or nullptr. Each program that embeds
// a page defines it, in the source embed.cmake generates.
const WebAsset* FindAsset(const std::string& path);

}  // namespace tarn_web
