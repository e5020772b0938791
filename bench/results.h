#pragma once

#include <string>
#include <vector>

#include "bench/statistics.h"

namespace vond::bench {

/// How one figure goes with another, a line for each of those compared.
struct Curve {
  struct Line {
    std::string name;
    Points points;
  };
  std::string id;
  std::string x;  ///< what it is, with its unit
  std::string y;
  std::vector<Line> lines;
};

/// All that one run has measured: printed as it comes, and written as JSON at the end. One thread.
class Results {
 public:
  /// Begins a part of the output.
  void Begin(const std::string& title);
  /// A figure by its dotted name, which bench/goals.json refers to.
  void Add(const std::string& id, const std::string& unit, const Summary& summary);
  void Add(const std::string& id, const std::string& unit, std::vector<double> rounds);
  /// One that is measured once.
  void Add(const std::string& id, const std::string& unit, double value);
  void Add(Curve curve);
  /// Something to know about the run.
  void Note(const std::string& key, const std::string& value);
  /// Throws std::runtime_error if the file can't be written.
  void Write(const std::string& path) const;

 private:
  struct Figure {
    std::string id;
    std::string unit;
    Summary summary;
  };
  std::vector<Figure> figures_;
  std::vector<Curve> curves_;
  std::vector<std::pair<std::string, std::string>> notes_;
};

}  // namespace vond::bench
