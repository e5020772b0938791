// One packet as it comes: parsed by the channel, and dispatched by the daemon if it parses. Without descriptors.

#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "fuzz/daemon_harness.h"
#include "fuzz/fuzz_support.h"
#include "korvo_common/proto/KorvoDaemon.pb.h"

namespace {

using korvo::static_pattern_matching_daemon::IpcChannel;
using vond::fuzz::Require;

// The two ends of a channel of our own, for what would end the daemon.
struct Ends {
  Ends() : Ends(MakePair()) {}
  explicit Ends(std::array<int, 2> fds) : sender(fds[0]), receiver(fds[1]) {}
  static std::array<int, 2> MakePair() {
    std::array<int, 2> fds{};
    Require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds.data()) == 0, "a socket pair can be made");
    return fds;
  }
  IpcChannel sender;
  IpcChannel receiver;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static auto* const ends = new Ends;
  auto& daemon = vond::fuzz::DaemonHarness::ForNextInput();
  korvo_daemon::Request request;
  std::vector<int> fds;
  Require(ends->sender.Send(data, size) == 0, "a packet can be sent");
  const int result = ends->receiver.ReceiveMessage(request, 131072, fds, 0);
  const bool parses = korvo_daemon::Request().ParseFromArray(data, static_cast<int>(size));
  Require(result == (size == 0 ? -EIO : parses ? 0 : -EINVAL), "the channel takes exactly what parses");
  if (result == 0) {
    std::vector<vond::fuzz::Packet> packets(1);
    packets[0].bytes.assign(reinterpret_cast<const char*>(data), size);
    daemon.Serve(std::move(packets));
  }
  return 0;
}
