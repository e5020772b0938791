#include "yara/yara_lib/disabled_members.h"

#include <yara.h>
#include <yara/arena.h>
#include <yara/exec.h>

#include <cstddef>
#include <cstring>

namespace korvo::yara::yara_lib {
namespace {

// Bytes of operand that follow `opcode`, as yr_execute_code() of libyara 4.2 to 4.5 consumes them; nothing for an
// opcode it does not have.
std::optional<std::size_t> OperandSize(std::uint8_t opcode) {
  switch (opcode) {
    case OP_PUSH_8:
      return 1;
    case OP_PUSH_16:
      return 2;
    case OP_PUSH_32:
    case OP_JUNDEF_P:
    case OP_JNUNDEF:
    case OP_JFALSE:
    case OP_JFALSE_P:
    case OP_JTRUE:
    case OP_JTRUE_P:
    case OP_JL_P:
    case OP_JLE_P:
    case OP_JZ:
    case OP_JZ_P:
      return 4;
    case OP_PUSH:
    case OP_CALL:
    case OP_OBJ_LOAD:
    case OP_OBJ_FIELD:
    case OP_OF:
    case OP_OF_PERCENT:
    case OP_PUSH_RULE:
    case OP_INIT_RULE:  // a jump offset, then the rule's index, of 4 bytes each
    case OP_MATCH_RULE:
    case OP_INCR_M:
    case OP_CLEAR_M:
    case OP_ADD_M:
    case OP_POP_M:
    case OP_PUSH_M:
    case OP_SET_M:
    case OP_SWAPUNDEF:
    case OP_IMPORT:
    case OP_INT_TO_DBL:
      return 8;
    case OP_ERROR:
    case OP_UNUSED:
    case OP_JUNDEF:
    case OP_JNUNDEF_P:
      return std::nullopt;
#ifdef OP_OF_FOUND_AT  // libyara 4.3, whose further new ones lie among the old
    case OP_ITER_START_TEXT_STRING_SET:
    case OP_OF_FOUND_AT:
      return 0;
#endif
    default:
      break;
  }
  if (opcode <= OP_DEFINED || IS_INT_OP(opcode) || IS_DBL_OP(opcode) || IS_STR_OP(opcode) ||
      (opcode >= OP_READ_INT && opcode <= OP_UINT32BE) || opcode == OP_NOP || opcode == OP_HALT) {
    return 0;
  }
  return std::nullopt;
}

template <typename T>
T ReadOperand(const std::uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

}  // namespace

std::optional<std::vector<RuleSetMembership>> FindRuleSetMemberships(const YR_RULES& rules) {
  const YR_ARENA_BUFFER& code = rules.arena->buffers[YR_CODE_SECTION];
  std::vector<RuleSetMembership> memberships;
  std::vector<std::uint32_t> pushed;  // the run of OP_PUSH_RULE just before the current instruction
  std::uint32_t owner = 0;

  const std::uint8_t* at = rules.code_start;
  const std::uint8_t* const end = code.data + code.used;
  while (at < end) {
    const std::uint8_t opcode = *at++;
    if (opcode == OP_HALT) {
      return memberships;
    }
    const std::optional<std::size_t> operand_size = OperandSize(opcode);
    if (!operand_size || static_cast<std::size_t>(end - at) < *operand_size) {
      return std::nullopt;
    }
    if (opcode == OP_PUSH_RULE) {
      pushed.push_back(static_cast<std::uint32_t>(ReadOperand<std::uint64_t>(at)));
    } else {
      if (opcode == OP_INIT_RULE) {
        owner = ReadOperand<std::uint32_t>(at + sizeof(std::int32_t));
      } else if ((opcode == OP_OF || opcode == OP_OF_PERCENT) && ReadOperand<std::uint64_t>(at) == OF_RULE_SET) {
        for (const std::uint32_t member : pushed) {
          memberships.push_back({owner, member});
        }
      }
      pushed.clear();
    }
    at += *operand_size;
  }
  return std::nullopt;  // code without its end
}

}  // namespace korvo::yara::yara_lib
