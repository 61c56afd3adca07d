// Handles of threads that drivers make.
#pragma once

#include "io/handle_table.h"
#include "ke/thread.h"

#include <memory>
#include <string>
#include <utility>

namespace host {

class PsThreadHandle final : public ObHandleBody {
  public:
    explicit PsThreadHandle(std::shared_ptr<Thread> thread) : thread_(std::move(thread)) {}
    std::string Describe() const override { return "thread"; }
    // A Thread lives as long as its kernel, so a reference to it need not be counted.
    Thread& Get() const { return *thread_; }

  private:
    std::shared_ptr<Thread> thread_;
};

} // namespace host
