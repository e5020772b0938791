#pragma once

#include <string_view>

// The packed form of a rule-set file, shared by the daemon, which reads it, and the agent's side, which writes it:
// the mark, then AES-128-ECB (PKCS#7 padding) of a gzip stream of YARA source. A file without the mark is source.
namespace korvo::utils {

inline constexpr std::string_view kPackedRuleSetMark = "ENCY";
inline constexpr std::string_view kPackedRuleSetKey = "Xq4!Tz8#Lw2@Rv6%";  // used as it stands
inline constexpr const char* kPackedRuleSetCipher = "aes-128-ecb";

}  // namespace korvo::utils
