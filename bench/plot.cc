// Draws the time of a sweep against the number of values, beside the peers and the floor, as an
// SVG.
//
//   plot DIRECTORY ROUNDS >FILE
//
// DIRECTORY is as for rounds; works in /usr/NQ, see script/bench.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "measure.h"
#include "network.h"

namespace {

constexpr uint32_t sizes[] = {10'000, 30'000, 100'000, 300'000, 1'000'000, 3'000'000};
constexpr double width = 744, height = 440, left = 64, right = 224, top = 40, bottom = 48;
// Seconds at the lower and the upper edge; both axes are logarithmic.
constexpr double shortest = 0.01, longest = 100;

struct Curve {
  std::string name;
  std::vector<double> seconds;  // one for each size
};

double across(double values) {
  const double whole = std::log(sizes[5] / static_cast<double>(sizes[0]));
  return left + (width - left - right) * std::log(values / sizes[0]) / whole;
}

double down(double seconds) {
  const double part = std::log(seconds / shortest) / std::log(longest / shortest);
  return height - bottom - (height - top - bottom) * part;
}

std::vector<Curve> measureAll(const std::string &binaries, int rounds) {
  const char *database = "/usr/NQ/measured";
  std::vector<Curve> curves = {{"dbsweep", {}},
                               {"gdbm_dump + gdbm_load", {}},
                               {"gdbm_dump + gdbm_load -M", {}},
                               {"floor: raw scan and copy", {}}};
  const std::string lines[] = {sweepLine(binaries, "-p Retired"), reloadLine(""), reloadLine("-M"),
                               floorLine(binaries)};
  for (const uint32_t size : sizes) {
    makeDatabase(binaries, std::to_string(size / valuesAnObject).c_str(), database);
    std::vector<Command> commands;
    for (size_t i = 0; i < curves.size(); ++i) {
      commands.push_back({curves[i].name, database, lines[i], {}});
    }
    for (int round = 0; round < rounds; ++round) {
      for (Command &command : commands) measure(command);
    }
    for (size_t i = 0; i < curves.size(); ++i) {
      curves[i].seconds.push_back(medianOf(commands[i], &Cost::wall));
      fprintf(stderr, "%9u  %-26s %8.3f s\n", size, commands[i].name.c_str(),
              curves[i].seconds.back());
    }
  }
  return curves;
}

void drawAxes() {
  for (const uint32_t size : sizes) {
    const double x = across(size);
    printf("<line class=\"grid\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", x, top, x,
           height - bottom);
    const bool isMillions = size >= 1'000'000;
    printf("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%u%s</text>\n", x,
           height - bottom + 18, size / (isMillions ? 1'000'000 : 1000),
           isMillions ? " million" : ",000");
  }
  for (double seconds = shortest; seconds < longest * 1.1; seconds *= 10) {
    const double y = down(seconds);
    printf("<line class=\"grid\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", left, y,
           width - right, y);
    printf("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%g s</text>\n", left - 8, y + 4,
           seconds);
  }
  printf("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">values in the database</text>\n",
         (left + width - right) / 2, height - 8);
}

void drawCurve(const Curve &curve, size_t index, double labelY) {
  printf("<polyline class=\"c%zu\" points=\"", index);
  for (size_t i = 0; i < curve.seconds.size(); ++i) {
    printf("%.1f,%.1f ", across(sizes[i]), down(curve.seconds[i]));
  }
  printf("\"/>\n<text class=\"l%zu\" x=\"%.1f\" y=\"%.1f\">%s</text>\n", index, width - right + 10,
         labelY, curve.name.c_str());
}

void draw(const std::vector<Curve> &curves, int rounds) {
  printf("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %g %g\" role=\"img\">\n", width,
         height);
  printf(
      "<title>Time of a sweep against the number of values</title>\n<style>\n"
      "text { font: 13px sans-serif; fill: #333 }\n.grid { stroke: #ccc }\n"
      "polyline { fill: none; stroke-width: 2.5 }\n");
  constexpr const char *light[] = {"#0b62d6", "#b3261e", "#b45f06", "#5f6368"};
  constexpr const char *dark[] = {"#7db4ff", "#ff8a80", "#ffb74d", "#bdc1c6"};
  const auto colours = [](const char *const *of) {
    for (size_t i = 0; i < 4; ++i) {
      printf(".c%zu { stroke: %s } .l%zu { fill: %s }\n", i, of[i], i, of[i]);
    }
  };
  colours(light);
  printf("@media (prefers-color-scheme: dark) {\ntext { fill: #ddd }\n.grid { stroke: #444 }\n");
  colours(dark);
  printf(
      "}\n</style>\n<text x=\"%g\" y=\"20\">Seconds for a sweep with one object in ten deleted, "
      "on %s, medians of %d rounds</text>\n",
      left, fileSystem().c_str(), rounds);
  drawAxes();
  // The names stand beside the ends of the curves, from the slowest down, at some distance.
  std::vector<size_t> order = {1, 2, 3, 0};
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return curves[a].seconds.back() > curves[b].seconds.back();
  });
  double lowest = 0;
  for (const size_t i : order) {
    lowest = std::max(lowest + 17, down(curves[i].seconds.back()) + 4);
    drawCurve(curves[i], i, lowest);
  }
  printf("</svg>\n");
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: plot DIRECTORY ROUNDS >FILE\n");
    return 2;
  }
  const int rounds = atoi(argv[2]);
  draw(measureAll(argv[1], rounds), rounds);
}
