#pragma once

// A picture of a mission as an SVG document: the driven trajectory, the
// way-points and the targets on a metric grid. Pure text in, text out, so the
// demo's drawing is tested without a robot.

#include <string>
#include <vector>

namespace tarn_demo {

struct Point {
  double x = 0;  // metres, as the status reports give them
  double y = 0;
};

struct Plot {
  std::vector<Point> trajectory;  // reported positions, in order
  std::vector<Point> waypoints;   // labelled 1, 2, ... in order
  std::vector<Point> targets;     // goals sent as single positions
};

// The whole document. The view covers every point with a margin; x grows to
// the right and y upwards, as on a floor plan; the grid step is 1, 2 or 5
// times a power of ten metres, chosen for about five to ten lines.
std::string RenderSvg(const Plot& plot);

}  // namespace tarn_demo
