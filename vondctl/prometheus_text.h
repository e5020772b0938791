#pragma once

#include <string>

#include "agent/proto/Relay.pb.h"

namespace vond::vondctl {

/// A relay's status in the text format of Prometheus (version 0.0.4).
[[nodiscard]] std::string PrometheusText(const vond_relay::Status& status);

}  // namespace vond::vondctl
