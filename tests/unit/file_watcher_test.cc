#include "vondctl/file_watcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

// What the kernel only sends on bad days: events through a pipe in the place of a fanotify group.
namespace vond::vondctl {
namespace {

namespace fs = std::filesystem;
using auto_resources::ManagedFD;

class FanotifyEvents : public testing::Test {
 public:
  FanotifyEvents() {
    fs::create_directories(folder_ / "w/.git");
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    to_.Reset(ends[1]);
    WalkOptions options;
    options.exclude = {".git"};
    options.max_size = 5;
    watcher_ = ReadFanotify(ManagedFD(ends[0]), WatchedFolders({folder_ / "w"}, options),
                            [this](const std::string& text) { said_.push_back(text); });
  }
  ~FanotifyEvents() override { fs::remove_all(folder_); }
  FanotifyEvents(const FanotifyEvents&) = delete;
  FanotifyEvents& operator=(const FanotifyEvents&) = delete;

 protected:
  // Of the file `name`, made now; of none if it is empty.
  void Send(const std::string& name, pid_t pid, std::uint64_t mask = FAN_CLOSE_WRITE) {
    fanotify_event_metadata event{};
    event.event_len = sizeof event;
    event.vers = version_;
    event.metadata_len = sizeof event;
    event.mask = mask;
    event.pid = pid;
    event.fd = FAN_NOFD;
    if (!name.empty()) {
      std::ofstream(folder_ / name, std::ios::app) << "x";
      event.fd = ::open((folder_ / name).c_str(), O_RDONLY | O_CLOEXEC);
    }
    ASSERT_EQ(::write(to_.Get(), &event, sizeof event), static_cast<ssize_t>(sizeof event));
  }

  const fs::path folder_ = fs::canonical(testing::TempDir()) / ("vond-fanotify-" + std::to_string(::getpid()));
  ManagedFD to_;
  std::vector<std::string> said_;
  std::unique_ptr<FileWatcher> watcher_;
  std::uint8_t version_ = FANOTIFY_METADATA_VERSION;
};

constexpr pid_t kSomebody = 1;

TEST_F(FanotifyEvents, AreTakenForFilesInTheFoldersAndLeaveNoDescriptor) {
  const std::set<int> before = test::OpenDescriptors();
  Send("w/a", kSomebody);
  Send("w/a", kSomebody);      // again before its turn
  Send("w/own", ::getpid());   // by this process
  Send("outside", kSomebody);  // elsewhere
  Send("w/.git/x", kSomebody);
  Send("w/b", kSomebody);
  for (const char* const name : {"w/a", "w/b"}) {
    const WalkedFile file = watcher_->Next();
    EXPECT_EQ(file.state, WalkedFile::State::kOpen);
    EXPECT_EQ(file.path, folder_ / name);
    EXPECT_TRUE(file.fd.IsValid());
  }
  EXPECT_EQ(watcher_->Next().state, WalkedFile::State::kWait);
  // Once it has had its turn, it counts again.
  Send("w/a", kSomebody);
  EXPECT_EQ(watcher_->Next().path, folder_ / "w/a");
  for (int i = 0; i < 3; ++i) {
    Send("w/a", kSomebody);
    static_cast<void>(watcher_->Next());
  }
  Send("w/a", kSomebody);
  EXPECT_EQ(watcher_->Next().state, WalkedFile::State::kSkipped) << "larger than max_size";
  EXPECT_EQ(test::OpenDescriptors(), before);
  EXPECT_EQ(watcher_->Lost(), 0U);
  EXPECT_EQ(said_, std::vector<std::string>{});
}

TEST_F(FanotifyEvents, ThatWereLostAreCountedAndSaid) {
  Send("w/a", kSomebody);
  Send("", 0, FAN_Q_OVERFLOW);
  Send("w/b", kSomebody);
  EXPECT_EQ(watcher_->Next().path, folder_ / "w/a");
  EXPECT_EQ(watcher_->Next().path, folder_ / "w/b");
  EXPECT_EQ(watcher_->Lost(), 1U);
  ASSERT_EQ(said_.size(), 1U);
  EXPECT_TRUE(said_.front().starts_with("events were lost"));
}

TEST_F(FanotifyEvents, ThatTheKernelCouldNotHandOverCountAsLost) {
  // A group that can't be read from: what it says is what it says for want of descriptors.
  const auto watcher =
      ReadFanotify(ManagedFD(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), WatchedFolders({folder_ / "w"}, {}),
                   [this](const std::string& text) { said_.push_back(text); });
  EXPECT_EQ(watcher->Next().state, WalkedFile::State::kWait);
  EXPECT_EQ(watcher->Lost(), 1U);
  EXPECT_EQ(said_.size(), 1U);
}

TEST_F(FanotifyEvents, OfAnotherFormAreRefused) {
  version_ = FANOTIFY_METADATA_VERSION + 1;
  Send("", kSomebody);
  EXPECT_THROW(static_cast<void>(watcher_->Next()), std::runtime_error);
}

}  // namespace
}  // namespace vond::vondctl
