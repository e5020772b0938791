// What a peer may do: any sequence of packets with any descriptors. An input is packets, one after the other: the
// number of descriptors (modulo 41), a byte for the kind of each (with a sized piece for a file of the input's), a
// sized piece as the packet's bytes.

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "fuzz/daemon_harness.h"
#include "fuzz/fuzz_support.h"

namespace {

using auto_resources::ManagedFD;
using vond::fuzz::Input;
using vond::fuzz::MakeFile;
using vond::fuzz::Packet;

constexpr std::size_t kMaxPackets = 16;
constexpr const char* kRules = "rule A { meta: id = \"1\" action = \"block\" strings: $a = \"abc\" condition: $a }";

// One end of a pipe or socket pair whose other end is gone.
ManagedFD KeepOne(const std::array<int, 2>& ends, std::size_t kept) {
  ::close(ends[1 - kept]);
  return ManagedFD(ends[kept]);
}

ManagedFD MakeDescriptor(Input& input, const std::vector<ManagedFD>& others) {
  std::array<int, 2> ends{-1, -1};
  const unsigned kind = input.TakeByte() % 8;
  switch (kind) {
    case 0:
      return MakeFile(kRules);
    case 1:
      return MakeFile("a file with abc in it");
    case 2:
    case 3:
      return ::pipe2(ends.data(), O_CLOEXEC) == 0 ? KeepOne(ends, kind - 2) : ManagedFD();
    case 4:
      return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0 ? KeepOne(ends, 0) : ManagedFD();
    case 5:
      return others.empty() ? MakeFile("") : ManagedFD(::fcntl(others.front().Get(), F_DUPFD_CLOEXEC, 0));
    case 6:
      return ManagedFD(::open("/proc/self", O_PATH | O_CLOEXEC));
    default:
      return MakeFile(input.TakeSized());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto& daemon = vond::fuzz::DaemonHarness::ForNextInput();
  Input input(data, size);
  std::vector<Packet> packets;
  while (!input.IsEmpty() && packets.size() < kMaxPackets) {
    Packet& packet = packets.emplace_back();
    const std::size_t count = input.TakeByte() % 41;
    while (packet.fds.size() < count) {
      packet.fds.push_back(MakeDescriptor(input, packet.fds));
    }
    packet.bytes = input.TakeSized();
  }
  daemon.Serve(std::move(packets));
  return 0;
}
