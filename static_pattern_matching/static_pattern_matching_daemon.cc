#include "static_pattern_matching/static_pattern_matching_daemon.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include "static_pattern_matching/daemon_sandbox.h"
#include "static_pattern_matching/json_conversion.h"
#include "utils/checked_access.h"
#include "utils/linux_utils.h"
#include "utils/log.h"

namespace korvo::static_pattern_matching_daemon {
namespace {

using korvo::utils::Mutex;
using korvo::utils::MutexLock;
using korvo_daemon::Config;
using korvo_daemon::Request;
using korvo_daemon::Response;
using static_pattern_matching_proto::ScanRequest;
using static_pattern_matching_proto::SentScanResponse;
using static_pattern_matching_proto::UserConfigData;

constexpr std::size_t kMaxRequestSize = 131072;
constexpr std::uint64_t kMinThreads = 1;
constexpr std::uint64_t kDefaultMaxThreads = 4;
constexpr std::uint64_t kQueueLimit = 200;
constexpr std::chrono::milliseconds kIdleTimeout{60000};

// Serialises all configuration processing. Lock order: this one, then YaraScanner's, then the pool's, the latter two
// each for a short update and never both.
Mutex configuration_mutex;

// Closes a request's descriptors, in their order.
class DescriptorsCloser {
 public:
  explicit DescriptorsCloser(const std::vector<int>& fds) : fds_(fds) {}
  ~DescriptorsCloser() {
    for (const int fd : fds_) {
      ::close(fd);
    }
  }
  DescriptorsCloser(const DescriptorsCloser&) = delete;
  DescriptorsCloser& operator=(const DescriptorsCloser&) = delete;

 private:
  const std::vector<int>& fds_;
};

std::uint64_t WorkerCount(const UserConfigData& user_config) {
  const std::uint64_t hardware = ProcessorCount();
  if (hardware == 0) {
    LOG_ERROR("std::thread::hardware_concurrency() failed");
    return kDefaultMaxThreads;
  }
  const std::uint64_t ceiling = user_config.max_number_of_threads();
  return std::min(hardware, ceiling == 0 ? kDefaultMaxThreads : ceiling);
}

std::string SerializeScanResponse(const SentScanResponse& response) {
  std::string bytes;
  if (!response.SerializeToString(&bytes)) {
    LOG_ERROR("Failed to serialize scan response to string");
    SentScanResponse failed;
    failed.set_status(static_pattern_matching_proto::ResponseStatus_ProtobufError);
    bytes = failed.SerializeAsString();
  }
  return bytes;
}

}  // namespace

StaticPatternMatchingDaemon::StaticPatternMatchingDaemon(IpcChannel& channel)
    : channel_(channel), thread_pool_("RequestHandler", kMinThreads, kDefaultMaxThreads, kQueueLimit, kIdleTimeout) {
  thread_pool_.StartThreads(kMinThreads);
  LOG_INFO("Creating StaticPatternMatchingDaemon..");
  reader_ = std::thread(&StaticPatternMatchingDaemon::ReadThread, this);
}

StaticPatternMatchingDaemon::~StaticPatternMatchingDaemon() {
  stop_ = true;
  channel_.Shutdown();
  LOG_INFO("Stopping reader thread");
  reader_.join();  // the reader ends the process, so what follows is not reached while it does
  LOG_INFO("Stopping request handling threads");
  thread_pool_.Stop();
  LOG_INFO("Stopped");
}

void StaticPatternMatchingDaemon::ReadThread() {
  LOG_INFO("StaticPatternMatchingDaemon is ready, waiting for requests");
  try {
    while (!stop_) {
      Request request;
      std::vector<int> fds{-1};
      const int result = channel_.ReceiveMessage(request, kMaxRequestSize, fds, -1);
      if (result != 0) {
        throw Exception(std::string("Failed to read request: ") + std::strerror(-result));
      }
      LOG_DEBUG("Got request with ", fds.size(), " fds: ", request.ShortDebugString());
      thread_pool_.AddTask(
          [request = std::move(request), fds = std::move(fds), daemon = this] { daemon->HandleRequest(request, fds); });
    }
  } catch (const std::exception& e) {
    if (!stop_) {
      LOG_ERROR("Exception in main loop: ", e.what());
    }
  }
  LOG_INFO("Exiting");
  ::_exit(0);
}

void StaticPatternMatchingDaemon::HandleRequest(const Request& request, const std::vector<int>& fds) {
  try {
    const DescriptorsCloser closer(fds);
    Response processed = ProcessRequest(request, fds);
    const MutexLock lock(response_mutex_);
    const Response response = std::move(processed);
    LOG_DEBUG("Sending response ", response.ShortDebugString());
    const int result = channel_.SendMessage(response);
    if (result != 0) {
      throw Exception(std::string("Failed to send response: ") + std::strerror(-result));
    }
  } catch (const std::exception& e) {
    LOG_ERROR("Exception in thread pool: ", e.what());
  }
  if (scanner_.TakeConfigFreed() || request.has_config()) {
    // Compiling leaves most of its working memory in the allocator's free lists, and so does a policy that nobody uses
    // any more. Given back once the answer is out and no lock is held.
    ::malloc_trim(0);
  }
}

Response StaticPatternMatchingDaemon::ProcessRequest(const Request& request, const std::vector<int>& fds) {
  Response response;
  switch (request.data_case()) {
    case Request::kConfig:
      ProcessConfig(request.config(), fds, response);
      break;
    case Request::kStats:
      response.mutable_stats();
      break;
    case Request::kGenericDataRequest:
      ProcessFileScan(request, fds, response);
      break;
    case Request::DATA_NOT_SET:
    case Request::kFileScan:
    case Request::kPluginRequest:
      LOG_ERROR("Invalid data case request: ", static_cast<int>(request.data_case()));
      break;
  }
  *response.mutable_header() = request.header();
  return response;
}

void StaticPatternMatchingDaemon::ProcessConfig(const Config& config, const std::vector<int>& fds, Response& response) {
  LOG_INFO("Processing new configuration..");
  bool success = false;
  try {
    const MutexLock lock(configuration_mutex);
    ApplyPolicy(config, fds);
    success = true;  // it is in force now, whatever becomes of the log line
    LOG_INFO("New configuration loaded successfully");
  } catch (const std::exception& e) {
    if (!success) {
      LOG_ERROR("ProcessConfig failed with error: ", e.what());
    }
  }
  response.mutable_config_result()->set_success(success);
}

void StaticPatternMatchingDaemon::ApplyPolicy(const Config& config, const std::vector<int>& fds) {
  const auto log_level = static_cast<std::int32_t>(config.log_level());
  if (log_level != korvo::utils::GetLogLevel()) {
    LOG_INFO("New log level: ", config.log_level());
    korvo::utils::SetLogLevel(log_level);  // stays, even if the rest of the policy fails
  }
  LOG_TRACE("UserConfig.data: ", config.user_config().data());
  UserConfigData user_config;
  if (JsonToMessage(config.user_config().data(), user_config) != 0) {
    throw Exception("Failed to read config from policy");
  }
  LOG_DEBUG("UserConfig.data was read successfully from policy");
  scanner_.UpdateConfig(user_config, fds);
  thread_pool_.SetLimits(kMinThreads, WorkerCount(user_config));
}

void StaticPatternMatchingDaemon::ProcessFileScan(const Request& request, const std::vector<int>& fds,
                                                  Response& response) {
  SentScanResponse scan_response;
  try {
    const int fd = korvo::utils::VectorAt(fds, 0);
    const std::string& data = request.generic_data_request().data();
    LOG_TRACE("Request string: ", data);
    ScanRequest scan_request;
    if (!scan_request.ParseFromString(data)) {
      throw YaraConfig::Exception("Failed to parse request",
                                  static_pattern_matching_proto::ResponseStatus_ProtobufError);
    }
    scan_response = scanner_.ScanFile(fd, scan_request);
  } catch (const utils::LinuxUtils::Exception& e) {
    LOG_ERROR("ProcessFileScan failed with errno: ", e.GetErrno(), " and error: ", e.what());
    scan_response.set_status(static_pattern_matching_proto::ResponseStatus_GenericError);
  } catch (const YaraConfig::Exception& e) {
    LOG_ERROR("ProcessFileScan failed with status: ", e.GetStatus(), " and error: ", e.what());
    scan_response.set_status(static_cast<static_pattern_matching_proto::ResponseStatus>(e.GetStatus()));
  } catch (const std::exception& e) {
    LOG_ERROR("ProcessFileScan failed with error: ", e.what());
    scan_response.set_status(static_pattern_matching_proto::ResponseStatus_GenericError);
  }
  std::string bytes = SerializeScanResponse(scan_response);
  LOG_TRACE("Scan response is: ", bytes);
  response.mutable_generic_data_response()->set_data(std::move(bytes));
}

}  // namespace korvo::static_pattern_matching_daemon
