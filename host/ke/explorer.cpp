#include "ke/explorer.h"

#include "ke/isolated_run.h"

#include <utility>

namespace host {
namespace {

// Walks the tree of choices depth first, one leaf per run.
class DepthFirstStrategy final : public Strategy {
  public:
    explicit DepthFirstStrategy(unsigned max_preemptions) : max_preemptions_(max_preemptions) {}

    void StartRun() override
    {
        depth_ = 0;
        preemptions_ = 0;
    }

    std::size_t PickNext(const Choice& choice) override
    {
        if (depth_ == path_.size())
            path_.push_back({0, choice.ready.size(), choice.may_continue, preemptions_});
        const Node& node = path_[depth_++];
        // Another number of threads than last time here: the scenario is not deterministic. The scheduler reports
        // an index that is too large.
        if (node.count != choice.ready.size())
            return choice.ready.size();
        preemptions_ += node.may_continue && node.chosen > 0 ? 1 : 0;
        return node.chosen;
    }

    // To the next leaf; false when there is none.
    bool Advance()
    {
        path_.resize(depth_);
        while (!path_.empty()) {
            Node& node = path_.back();
            const bool free = !node.may_continue || node.preemptions_before < max_preemptions_;
            if (free && node.chosen + 1 < node.count) {
                ++node.chosen;
                return true;
            }
            path_.pop_back();
        }
        return false;
    }

  private:
    struct Node {
        std::size_t chosen;
        std::size_t count;
        bool may_continue;
        unsigned preemptions_before;
    };

    const unsigned max_preemptions_;
    std::vector<Node> path_;
    std::size_t depth_ = 0;
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
    return text + "\nseed " + std::to_string(options.seed) + ", schedule " + schedule;
}

Exploration ExploreSchedules(const KernelOptions& options, unsigned max_preemptions, std::uint64_t max_runs,
                             const Scenario& scenario)
{
    const auto strategy = std::make_shared<DepthFirstStrategy>(max_preemptions);
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
            result.exhausted = true;
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
