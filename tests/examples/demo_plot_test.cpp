#include <gtest/gtest.h>

#include <string>

#include "plot.h"

TEST(DemoPlot, MetricGridTrajectoryWaypointsTargetsAndLegend) {
  // One metre square: 0.2 m steps from -0.2 to 1.2 m on both axes, 342.857
  // pixels per metre, y upwards (a larger y is nearer the top).
  const std::string svg =
      tarn_demo::RenderSvg({{{0, 0}, {1, 0}, {1, 1}}, {{1, 0}, {1, 1}}, {{0.5, 0.5}}});
  for (const char* part :
       {"<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"710\" height=\"570\"",
        "points=\"128.6,451.4 471.4,451.4 471.4,108.6\"",
        "<circle cx=\"471.4\" cy=\"108.6\" r=\"6\"", " dy=\"-8\" fill=\"#ff7f0e\">2</text>",
        "<path d=\"M300.0,280.0 m-6,-6", ">-0.2</text>", ">0.0</text>", ">1.2</text>",
        ">x (m)</text>", ">y (m)</text>", ">driven path</text>", ">way-point</text>",
        ">target</text>", ">grid 0.2 m</text>"})
    EXPECT_NE(svg.find(part), std::string::npos) << part << "\n" << svg;
  int grid = 0;  // 8 lines across, 8 along
  for (auto at = svg.find("#ddd"); at != std::string::npos; at = svg.find("#ddd", at + 1)) ++grid;
  EXPECT_EQ(grid, 16);
  EXPECT_EQ(svg.find(">-0.0<"), std::string::npos);
  EXPECT_EQ(svg.substr(svg.size() - 7), "</svg>\n");
  EXPECT_EQ(tarn_demo::RenderSvg({}).substr(0, 4), "<svg");  // nothing to draw: still a document
}
