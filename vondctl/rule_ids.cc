#include "vondctl/rule_ids.h"

#include <Poco/SHA1Engine.h>
#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

namespace vond::vondctl {

std::string StableRuleId(std::string_view set, std::string_view rule) {
  // The namespace of all ids made here. Another one would give other ids.
  const Poco::UUID rules("6d2f3f0a-5c0b-4f5e-9a37-2e1b7f4c8d90");
  std::string name(set);
  name += '/';  // in no rule's name, so no two pairs make the same text
  name += rule;
  Poco::SHA1Engine sha1;
  Poco::UUIDGenerator generator;
  return generator.createFromName(rules, name, sha1, Poco::UUID::UUID_NAME_BASED_SHA1).toString();
}

}  // namespace vond::vondctl
