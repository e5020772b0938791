#include "agent/rule_packer.h"

#include <gtest/gtest.h>

#include "static_pattern_matching/rule_set_decoder.h"

namespace vond::agent {
namespace {

TEST(RulePacker, TheDecoderGivesBackWhatWasPacked) {
  std::string mixed(3'000'000, '\0');
  for (std::size_t i = 0; i < mixed.size(); ++i) {
    mixed[i] = static_cast<char>((i * i) >> 7);
  }
  for (const std::string& source :
       {std::string(), std::string("rule a { condition: true }\n"), std::string("ENCY"), mixed}) {
    const std::string packed = PackRuleSet(source);
    EXPECT_TRUE(packed.starts_with("ENCY"));
    EXPECT_EQ((packed.size() - 4) % 16, 0U);
    EXPECT_TRUE(korvo::static_pattern_matching_daemon::DecodeRuleSet(packed) == source) << source.size() << " bytes";
  }
}

}  // namespace
}  // namespace vond::agent
