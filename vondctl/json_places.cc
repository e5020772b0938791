#include "vondctl/json_places.h"

#include <cstddef>
#include <iterator>
#include <nlohmann/json.hpp>
#include <vector>

namespace vond::vondctl {
namespace {

// Counts the lines that the parser has read.
class LineCounter {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  LineCounter(const char* at, long* line) : at_(at), line_(line) {}
  reference operator*() const { return *at_; }
  LineCounter& operator++() {
    *line_ += *at_ == '\n' ? 1 : 0;
    ++at_;
    return *this;
  }
  bool operator==(const LineCounter& other) const { return at_ == other.at_; }
  bool operator!=(const LineCounter& other) const { return at_ != other.at_; }

 private:
  const char* at_;
  long* line_;
};

// Hears of values as they are read. A key, a brace or a bracket has been read to its end and no further by then. A
// number has not (the character behind it ends it), but a number in a list stands on a line that nobody asks for.
class PlaceRecorder : public nlohmann::json_sax<nlohmann::json> {
 public:
  PlaceRecorder(const long* line, std::map<std::string, long>& places) : line_(line), places_(places) {}

  bool null() override { return Value(); }
  bool boolean(bool /*value*/) override { return Value(); }
  bool number_integer(number_integer_t /*value*/) override { return Value(); }
  bool number_unsigned(number_unsigned_t /*value*/) override { return Value(); }
  bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return Value(); }
  bool string(string_t& /*value*/) override { return Value(); }
  bool binary(binary_t& /*value*/) override { return Value(); }
  bool key(string_t& name) override {
    levels_.back().name = name;
    places_[Path()] = *line_;
    return true;
  }
  bool start_object(std::size_t /*size*/) override { return Open(false); }
  bool end_object() override { return Close(); }
  bool start_array(std::size_t /*size*/) override { return Open(true); }
  bool end_array() override { return Close(); }
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::detail::exception& /*error*/) override {
    return false;
  }

 private:
  struct Level {
    bool is_array = false;
    std::size_t next = 0;
    std::string name;
  };

  [[nodiscard]] std::string Path() const {
    std::string path;
    for (const Level& level : levels_) {
      path += (path.empty() ? "" : "/") + level.name;
    }
    return path;
  }
  // A value begins, or is over.
  bool Value() {
    if (!levels_.empty() && levels_.back().is_array) {
      levels_.back().name = std::to_string(levels_.back().next++);
      places_[Path()] = *line_;
    }
    return true;
  }
  bool Open(bool is_array) {
    Value();
    if (levels_.size() > kMaxDepth) {
      return false;
    }
    levels_.push_back({is_array, 0, ""});
    return true;
  }
  bool Close() {
    levels_.pop_back();
    return true;
  }

  static constexpr std::size_t kMaxDepth = 20;  // deeper than any policy, so that paths stay short

  const long* line_;
  std::map<std::string, long>& places_;
  std::vector<Level> levels_;
};

}  // namespace

std::map<std::string, long> PlacesOfJson(const std::string& text) {
  std::map<std::string, long> places;
  long line = 1;
  PlaceRecorder recorder(&line, places);
  nlohmann::json::sax_parse(LineCounter(text.data(), &line), LineCounter(text.data() + text.size(), &line), &recorder);
  return places;
}

}  // namespace vond::vondctl
