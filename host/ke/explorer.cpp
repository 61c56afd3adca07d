#include "ke/explorer.h"

#include "ke/isolated_run.h"
#include "ke/kernel_impl.h"
#include "ke/own_step.h"

#include <deque>
#include <set>
#include <utility>

namespace host {
namespace {

// Walks the tree of choices breadth first: schedules that leave the usual one once come first, and those that leave it
// early before those that leave it late.
class BreadthFirstStrategy final : public Strategy {
  public:
    BreadthFirstStrategy(unsigned max_preemptions, std::uint64_t max_runs, std::set<std::string> actors)
        : max_preemptions_(max_preemptions), actors_(std::move(actors)), room_(max_runs - 1)
    {}

    void StartRun() override
    {
        chosen_.clear();
        preemptions_ = 0;
    }

    std::size_t PickNext(const Choice& choice) override
    {
        const std::size_t depth = chosen_.size();
        std::size_t next = 0;
        if (depth < prefix_.size())
            next =
                prefix_[depth]; // too large: another number of threads than last time here, which is reported
        else if (!choice.may_continue || MayPreempt(choice.ready[0]))
            Branch(choice);
        preemptions_ += choice.may_continue && next > 0 ? 1 : 0;
        chosen_.push_back(static_cast<std::uint32_t>(next));
        return next;
    }

    // To the next schedule; false when there is none.
    bool Advance()
    {
        if (frontier_.empty())
            return false;
        prefix_ = std::move(frontier_.front());
        frontier_.pop_front();
        return true;
    }

    bool LeftOut() const { return left_out_; }

  private:
    bool IsActor(ThreadId thread) const
    {
        return actors_.empty() || actors_.contains(KiKernel().threads.NameOf(thread));
    }

    bool MayPreempt(ThreadId running) const
    {
        return preemptions_ < max_preemptions_ && !OwnStep::Within() && IsActor(running);
    }

    void Branch(const Choice& choice)
    {
        for (std::uint32_t other = 1; other < choice.ready.size(); ++other) {
            if (!IsActor(choice.ready[other]))
                continue;
            if (room_ == 0) {
                left_out_ = true; // it could not be run any more
                return;
            }
            --room_;
            frontier_.push_back(chosen_);
            frontier_.back().push_back(other);
        }
    }

    const unsigned max_preemptions_;
    const std::set<std::string> actors_;
    std::uint64_t room_; // for schedules within the limit of runs
    bool left_out_ = false;
    std::deque<std::vector<std::uint32_t>> frontier_;
    std::vector<std::uint32_t> prefix_; // of this run; behind it the first thread is chosen
    std::vector<std::uint32_t> chosen_;
    unsigned preemptions_ = 0;
};

// True: all was well. Otherwise what happened is in `failure`.
bool RunOnce(KernelOptions options, const Scenario& scenario, std::optional<FailedRun>& failure)
{
    FailedRun run;
    options.policy = Policy::Record;
    const auto listener = std::exchange(options.on_finding, nullptr);
    options.on_finding = [&](const Finding& finding) {
        run.findings.push_back(finding);
        if (listener != nullptr)
            listener(finding);
    };
    options.on_end = [&run](const Kernel& kernel) {
        run.schedule = FormatSchedule(kernel.RecordedSchedule());
        run.description = kernel.RunDescription();
    };
    bool content = false;
    const bool ended = RunIsolated([&] { content = scenario(options); });
    if (ended && content && run.findings.empty())
        return true;
    run.options = std::move(options);
    run.options.on_finding = listener;
    run.options.on_end = nullptr;
    failure = std::move(run);
    return false;
}

} // namespace

std::string FailedRun::Describe() const
{
    std::string text = findings.empty() ? "the scenario was not content" : "";
    for (const Finding& finding : findings)
        text += FormatFinding(finding) + "\n";
    return text + "\n" + description;
}

Exploration ExploreSchedules(const KernelOptions& options, unsigned max_preemptions, std::uint64_t max_runs,
                             const Scenario& scenario, const std::set<std::string>& actors)
{
    const auto strategy = std::make_shared<BreadthFirstStrategy>(max_preemptions, max_runs, actors);
    KernelOptions each = options;
    each.strategy = StrategyKind::Custom;
    each.custom = strategy;
    Exploration result;
    while (result.runs < max_runs) {
        ++result.runs;
        if (!RunOnce(each, scenario, result.failure)) {
            result.failure->options.strategy = StrategyKind::Replay;
            result.failure->options.schedule = result.failure->schedule;
            result.failure->options.custom = nullptr;
            return result;
        }
        if (!strategy->Advance()) {
            result.exhausted = !strategy->LeftOut();
            return result;
        }
    }
    return result;
}

Exploration ExploreSeeds(const KernelOptions& options, std::uint64_t count, const Scenario& scenario)
{
    Exploration result;
    for (; result.runs < count; ++result.runs) {
        KernelOptions each = options;
        each.seed = options.seed + result.runs;
        each.strategy = each.seed % 5 == 0 ? StrategyKind::Random : StrategyKind::Pct;
        each.pct_depth = static_cast<unsigned>(1 + each.seed % 3);
        if (!RunOnce(each, scenario, result.failure)) {
            ++result.runs;
            return result;
        }
    }
    result.exhausted = true;
    return result;
}

} // namespace host
