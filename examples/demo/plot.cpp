#include "plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace tarn_demo {

namespace {

constexpr double kWidth = 640;  // drawing area in pixels, axes labels outside it
constexpr double kHeight = 480;
constexpr double kLeft = 60;    // room for the y labels
constexpr double kTop = 40;     // room for the title
constexpr double kBottom = 50;  // room for the x labels
constexpr double kRight = 170;  // room for the legend

std::string Fixed(double v, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, v);
  std::string s = text;
  return s == "-0" || s == "-0.0" || s == "-0.00" ? s.substr(1) : s;
}

// 1, 2 or 5 times a power of ten, so that `span` holds about five to ten steps.
double GridStep(double span) {
  const double raw = span / 6;
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  for (double m : {1.0, 2.0, 5.0, 10.0}) {
    if (raw <= m * power) return m * power;
  }
  return 10 * power;
}

}  // namespace

std::string RenderSvg(const Plot& plot) {
  std::vector<Point> all = plot.trajectory;
  all.insert(all.end(), plot.waypoints.begin(), plot.waypoints.end());
  all.insert(all.end(), plot.targets.begin(), plot.targets.end());
  if (all.empty()) all.push_back({0, 0});
  double x0 = all[0].x, x1 = all[0].x, y0 = all[0].y, y1 = all[0].y;
  for (const Point& p : all) {
    x0 = std::min(x0, p.x), x1 = std::max(x1, p.x);
    y0 = std::min(y0, p.y), y1 = std::max(y1, p.y);
  }
  // One scale for both axes, so that a square on the floor stays square.
  const double span = std::max({x1 - x0, y1 - y0, 1.0});
  const double step = GridStep(span);
  x0 = std::floor((x0 - span * 0.1) / step) * step;
  y0 = std::floor((y0 - span * 0.1) / step) * step;
  x1 = std::ceil((x1 + span * 0.1) / step) * step;
  y1 = std::ceil((y1 + span * 0.1) / step) * step;
  const double scale = std::min(kWidth / (x1 - x0), kHeight / (y1 - y0));
  const double w = (x1 - x0) * scale, h = (y1 - y0) * scale;
  auto px = [&](double x) { return Fixed(kLeft + (x - x0) * scale, 1); };
  auto py = [&](double y) { return Fixed(kTop + (y1 - y) * scale, 1); };
  const int decimals = step >= 1 ? 0 : step >= 0.1 ? 1 : 2;

  std::ostringstream svg;
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << Fixed(kLeft + w + kRight, 0)
      << "\" height=\"" << Fixed(kTop + h + kBottom, 0)
      << "\" font-family=\"sans-serif\" font-size=\"12\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << Fixed(kLeft, 0) << "\" y=\"24\" font-size=\"16\">Mission</text>\n";
  // Grid lines with their values in metres; integer steps keep rounding out
  // of the line count.
  const int nx = static_cast<int>(std::lround((x1 - x0) / step));
  const int ny = static_cast<int>(std::lround((y1 - y0) / step));
  for (int i = 0; i <= nx; ++i) {
    const double x = x0 + i * step;
    svg << "<line x1=\"" << px(x) << "\" y1=\"" << py(y0) << "\" x2=\"" << px(x) << "\" y2=\""
        << py(y1) << "\" stroke=\"#ddd\"/><text x=\"" << px(x) << "\" y=\""
        << Fixed(kTop + h + 16, 0) << "\" text-anchor=\"middle\">" << Fixed(x, decimals)
        << "</text>\n";
  }
  for (int i = 0; i <= ny; ++i) {
    const double y = y0 + i * step;
    svg << "<line x1=\"" << px(x0) << "\" y1=\"" << py(y) << "\" x2=\"" << px(x1) << "\" y2=\""
        << py(y) << "\" stroke=\"#ddd\"/><text x=\"" << Fixed(kLeft - 6, 0) << "\" y=\"" << py(y)
        << "\" text-anchor=\"end\" dominant-baseline=\"middle\">" << Fixed(y, decimals)
        << "</text>\n";
  }
  svg << "<text x=\"" << Fixed(kLeft + w / 2, 0) << "\" y=\"" << Fixed(kTop + h + 38, 0)
      << "\" text-anchor=\"middle\">x (m)</text>\n"
      << "<text x=\"14\" y=\"" << Fixed(kTop + h / 2, 0)
      << "\" text-anchor=\"middle\" transform=\"rotate(-90 14 " << Fixed(kTop + h / 2, 0)
      << ")\">y (m)</text>\n";

  if (!plot.trajectory.empty()) {
    svg << "<polyline fill=\"none\" stroke=\"#1f77b4\" stroke-width=\"2\" points=\"";
    for (std::size_t i = 0; i < plot.trajectory.size(); ++i) {
      svg << (i ? " " : "") << px(plot.trajectory[i].x) << "," << py(plot.trajectory[i].y);
    }
    svg << "\"/>\n";
  }
  for (std::size_t i = 0; i < plot.waypoints.size(); ++i) {
    const Point& p = plot.waypoints[i];
    svg << "<circle cx=\"" << px(p.x) << "\" cy=\"" << py(p.y)
        << "\" r=\"6\" fill=\"none\" stroke=\"#ff7f0e\" stroke-width=\"2\"/><text x=\"" << px(p.x)
        << "\" y=\"" << py(p.y) << "\" dx=\"8\" dy=\"-8\" fill=\"#ff7f0e\">" << i + 1
        << "</text>\n";
  }
  for (const Point& p : plot.targets) {
    svg << "<path d=\"M" << px(p.x) << "," << py(p.y) << " m-6,-6 l12,12 m0,-12 l-12,12\" "
        << "stroke=\"#d62728\" stroke-width=\"2\"/>\n";
  }

  // The legend, right of the drawing.
  const std::string lx = Fixed(kLeft + w + 20, 0), tx = Fixed(kLeft + w + 44, 0);
  svg << "<line x1=\"" << lx << "\" y1=\"" << Fixed(kTop + 10, 0) << "\" x2=\""
      << Fixed(kLeft + w + 36, 0) << "\" y2=\"" << Fixed(kTop + 10, 0)
      << "\" stroke=\"#1f77b4\" stroke-width=\"2\"/><text x=\"" << tx << "\" y=\""
      << Fixed(kTop + 14, 0) << "\">driven path</text>\n"
      << "<circle cx=\"" << Fixed(kLeft + w + 28, 0) << "\" cy=\"" << Fixed(kTop + 30, 0)
      << "\" r=\"6\" fill=\"none\" stroke=\"#ff7f0e\" stroke-width=\"2\"/><text x=\"" << tx
      << "\" y=\"" << Fixed(kTop + 34, 0) << "\">way-point</text>\n"
      << "<path d=\"M" << Fixed(kLeft + w + 28, 0) << "," << Fixed(kTop + 50, 0)
      << " m-6,-6 l12,12 m0,-12 l-12,12\" stroke=\"#d62728\" stroke-width=\"2\"/><text x=\"" << tx
      << "\" y=\"" << Fixed(kTop + 54, 0) << "\">target</text>\n"
      << "<text x=\"" << lx << "\" y=\"" << Fixed(kTop + 78, 0) << "\">grid "
      << Fixed(step, decimals) << " m</text>\n"
      << "</svg>\n";
  return svg.str();
}

}  // namespace tarn_demo
