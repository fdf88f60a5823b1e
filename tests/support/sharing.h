// SPDX-License-Identifier: MIT
// A random run over copies that share one system object, which the last of them ends.
#pragma once

#include <algorithm>
#include <memory>
#include <optional>

#include "support/seed.h"
#include "support/system_calls.h"

// Makes, copies, assigns and destroys objects of the kind. Of each system object exactly the last
// owner notes `end`. `use` runs on all living objects after each step: the system layer stops the
// process if one has lost its system object.
template <class Kind, class Make, class Use>
void expectSharing(const std::string& end, Make make, Use use) {
  constexpr unsigned OBJECTS = 200;  // more than 16 system objects are shared at times
  Random random(3);
  long ended = 0;
  const auto handle = [&] { return std::shared_ptr<void>(nullptr, [&](void*) { ended++; }); };
  std::optional<Kind> objects[OBJECTS];
  std::shared_ptr<void> handles[OBJECTS];  // the model
  const SystemCalls calls;
  for (unsigned step = 0; step < 1000 + OBJECTS && !testing::Test::HasFailure(); step++) {
    const unsigned a = step < 1000 ? random.below(OBJECTS) : step - 1000, b = random.below(OBJECTS);
    const unsigned kind = step < 1000 ? random.below(4) : 3;
    if (kind == 0) {
      make(objects[a]);
      handles[a] = handle();
    } else if (kind < 3 && objects[b]) {
      if (kind == 1 && a != b) objects[a].reset();
      objects[a] = objects[b];
      handles[a] = handles[b];
    } else if (kind == 3) {
      objects[a].reset();
      handles[a].reset();
    }
    const auto notes = calls.take();
    ASSERT_EQ(std::count(notes.begin(), notes.end(), end), std::exchange(ended, 0));
    for (std::optional<Kind>& each : objects)
      if (each) use(*each);
  }
}
