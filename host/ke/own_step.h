// Synchronisation of the kernel's own components among themselves, which no driver takes part in: explorations of
// schedules switch threads at a driver's steps only.
#pragma once

namespace host {

class OwnStep {
  public:
    OwnStep() { ++depth_; }
    ~OwnStep() { --depth_; }
    OwnStep(const OwnStep&) = delete;
    OwnStep& operator=(const OwnStep&) = delete;

    // Of the calling thread.
    static bool Within() { return depth_ != 0; }

  private:
    static inline thread_local int depth_ = 0;
};

} // namespace host
