#include "vondctl/file_watcher.h"

#include <fmt/format.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace vond::vondctl {

WatchedFolders::WatchedFolders(const std::vector<std::string>& paths, WalkOptions options)
    : options_(std::move(options)) {
  for (const std::string& path : paths) {
    const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), &std::free);
    struct stat status {};
    if (real == nullptr || ::stat(real.get(), &status) != 0) {
      throw std::system_error(errno, std::generic_category(), path);
    }
    if (!S_ISDIR(status.st_mode)) {
      throw std::system_error(ENOTDIR, std::generic_category(), path + " can't be watched, only folders can");
    }
    std::string named = path;
    while (named.size() > 1 && named.ends_with('/')) {
      named.pop_back();
    }
    roots_.push_back({named, real.get()});
  }
}

std::optional<std::string> WatchedFolders::NameOf(const std::string& real) const {
  for (const Root& root : roots_) {
    const std::string prefix = root.real == "/" ? "/" : root.real + '/';
    if (real == root.real) {
      return root.named;
    }
    if (!real.starts_with(prefix)) {
      continue;
    }
    const std::string name = (root.named == "/" ? "/" : root.named + '/') + real.substr(prefix.size());
    bool excluded = false;
    // Each folder on the way, then the path itself.
    for (std::size_t end = root.named.size(); !options_.exclude.empty() && !excluded && end != std::string::npos;) {
      end = name.find('/', end + 1);
      excluded = MatchesAny(options_.exclude, name.substr(0, end));
    }
    if (!excluded) {
      return name;
    }
  }
  return std::nullopt;
}

bool WatchedFolders::Includes(const std::string& name) const {
  return options_.include.empty() || MatchesAny(options_.include, name);
}

std::string PathBehind(int fd) {
  std::array<char, PATH_MAX> path{};
  const ssize_t size = ::readlink(fmt::format("/proc/self/fd/{}", fd).c_str(), path.data(), path.size());
  return size > 0 ? std::string(path.data(), static_cast<std::size_t>(size)) : "";
}

}  // namespace vond::vondctl
