// A closed circuit that a receiver travels round and round at a steady speed.
#pragma once

#include "module/device.h"

#include <vector>

namespace module {

struct Place {
    double latitude = 0; // degrees, north and east positive
    double longitude = 0;
};

struct Fix {
    Place place;
    double course = 0;   // degrees from true north, 0 up to 360
    double speed = 0;    // metres per second
    double altitude = 0; // metres above mean sea level
};

class Track {
  public:
    // A walk round Greenwich, across the prime meridian.
    Track();

    // Straight legs between the corners and back to the first. Throws std::invalid_argument when the
    // corners do not span a way, or the speed is not positive.
    Track(std::vector<Place> corners, double metres_per_second);

    Fix At(Time time) const;
    double length() const { return length_; } // metres

  private:
    struct Leg {
        Place from;
        double start = 0; // metres from the first corner
        double length = 0;
        double north = 0; // metres
        double east = 0;
    };

    std::vector<Leg> legs_;
    double length_ = 0;
    double speed_;
};

} // namespace module
