// Where sentences come from. A source gives bursts: the sentences of one moment, sent together.
#pragma once

#include "module/device.h"

#include <optional>
#include <string>

namespace module {

class NmeaSource {
  public:
    virtual ~NmeaSource() = default;

    // Output is switched on, or on again: bursts are due from `now` on.
    virtual void Start(Time now) = 0;

    // When the next burst is due; nothing when there is none left, or before Start.
    virtual std::optional<Time> Due() const = 0;

    // The burst that is due, whole sentences with their line ends. Due() moves on to the next one.
    virtual std::string Take() = 0;
};

} // namespace module
