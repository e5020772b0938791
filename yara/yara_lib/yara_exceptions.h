#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace korvo::yara::yara_lib {

/// A libyara call failed. what() is fixed per class; libyara's code is in `error`.
class YaraException : public std::runtime_error {
 public:
  explicit YaraException(std::int32_t error_code) : YaraException("Yara error.", error_code) {}

  std::int32_t error;

 protected:
  YaraException(const char* text, std::int32_t error_code) : std::runtime_error(text), error(error_code) {}
};

/// One report of the compiler.
struct CompilerMessage {
  std::int32_t level = 0;  ///< libyara's: 0 error, 1 warning
  std::string file_name;   ///< empty: sources come as text
  std::int32_t line_number = 0;
  std::string rule_name;  ///< empty when the report is about no rule
  std::string message;
};

/// Rule source did not compile.
class YaraCompilationException : public YaraException {
 public:
  /// Counts `all_messages` into errors and warnings; with `treat_warnings_as_errors` every one counts as an error.
  YaraCompilationException(std::int32_t error_code, std::vector<CompilerMessage> all_messages,
                           bool treat_warnings_as_errors);

  std::vector<CompilerMessage> messages;  ///< in the compiler's order
  std::size_t error_count = 0;
  std::size_t warning_count = 0;
};

/// A metadata message without a value.
class YaraProtobufException : public YaraException {
 public:
  YaraProtobufException() : YaraException("Yara protobuf error. No metadata value set.", -1) {}
};

}  // namespace korvo::yara::yara_lib
