// SPDX-License-Identifier: MIT
// The recording sink, counted when it is destroyed.
#pragma once

#include "utils/testing/recording_sink.h"

struct RecordingSink : Utils::Testing::RecordingSink {
  ~RecordingSink() override { ended_++; }

  static inline int ended_ = 0;  // sinks of this class
};
