#pragma once

// The live view's page, script and style sheet, compiled into tarn-sim.

#include <cstddef>
#include <string>

namespace tarn_sim {

struct WebAsset {
  const char* path;  // "/index.html"
  const char* content_type;
  const char* data;
  std::size_t size;
};

// The embedded file served at `path`, or nullptr.
const WebAsset* FindAsset(const std::string& path);

}  // namespace tarn_sim
