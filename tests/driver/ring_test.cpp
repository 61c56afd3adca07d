// The client's store, compared with the rule byte by byte: full means the newest byte is dropped, and a read
// that waits is filled directly until its buffer is full.
#include "ring.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

namespace {

using Bytes = std::vector<UCHAR>;

// The rule, one byte at a time.
class ByteByByte {
  public:
    ByteByByte(ULONG size, ULONG primed, const UCHAR* storage) : size_(size), ring_(storage, storage + primed)
    {}

    bool Append(const Bytes& bytes)
    {
        bool filled = false;
        for (const UCHAR byte : bytes) {
            if (wanted_ != 0) {
                read_.push_back(byte);
                if (--wanted_ == 0)
                    filled = true;
            } else if (ring_.size() < size_) {
                ring_.push_back(byte);
            }
        }
        return filled;
    }
    Bytes Take(ULONG wanted)
    {
        Bytes taken;
        for (; wanted != 0 && !ring_.empty(); --wanted) {
            taken.push_back(ring_.front());
            ring_.pop_front();
        }
        return taken;
    }
    void EnterDirectFill(ULONG wanted)
    {
        wanted_ = wanted;
        read_.clear();
    }
    void LeaveDirectFill() { wanted_ = 0; }

    std::size_t Count() const { return ring_.size(); }
    const Bytes& Read() const { return read_; }

  private:
    std::size_t size_;
    std::deque<UCHAR> ring_;
    ULONG wanted_ = 0;
    Bytes read_;
};

class RingAgainstRule : public ::testing::TestWithParam<ULONG> {};

TEST_P(RingAgainstRule, RandomTransfersAndReadsGiveTheSameBytes)
{
    const ULONG size = GetParam();
    std::mt19937 random(size);
    const auto upTo = [&](ULONG most) { return static_cast<ULONG>(random() % (most + 1)); };

    Bytes storage(size);
    for (UCHAR& byte : storage)
        byte = static_cast<UCHAR>(random());
    const ULONG primed = size > 32 ? 32 : 1;
    ByteByByte rule(size, primed, storage.data());
    ClientRing ring;
    ring.Initialise(storage.data(), size, primed);

    Bytes direct;
    const ULONG steps = std::min(20'000u, 2'000'000 / size);
    for (ULONG step = 0; step < steps; ++step) {
        Bytes transfer(upTo(size + size / 2));
        transfer.reserve(1); // so that an empty one has an address
        for (UCHAR& byte : transfer)
            byte = static_cast<UCHAR>(random());

        const bool wasDirect = ring.IsDirectFill();
        const bool filled = ring.Append(transfer.data(), static_cast<ULONG>(transfer.size()));
        ASSERT_EQ(filled, rule.Append(transfer)) << "step " << step;
        if (wasDirect && (filled || random() % 2 == 0)) {
            // The read ends: filled by the transfer, or taken away early.
            const auto n = filled ? direct.size() : direct.size() - ring.RoomInFill();
            if (!filled) {
                ring.ResetToRing();
                rule.LeaveDirectFill();
            }
            ASSERT_EQ(Bytes(direct.begin(), direct.begin() + static_cast<long>(n)), rule.Read())
                << "step " << step;
        }
        ASSERT_EQ(ring.RingCount, ring.IsDirectFill() ? 0 : rule.Count()) << "step " << step;
        if (ring.IsDirectFill())
            continue;

        Bytes out(upTo(size + 4));
        const ULONG taken = ring.Take(out.data(), static_cast<ULONG>(out.size()));
        ring.Account(taken);
        const bool wantsMore = taken < out.size();
        ASSERT_EQ(Bytes(out.begin(), out.begin() + taken), rule.Take(static_cast<ULONG>(out.size())));
        if (wantsMore && ring.RingCount == 0 && random() % 2 == 0) {
            direct.assign(1 + upTo(2 * size), 0);
            ring.EnterDirectFill(direct.data(), static_cast<ULONG>(direct.size()), 0);
            rule.EnterDirectFill(static_cast<ULONG>(direct.size()));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, RingAgainstRule, ::testing::Values(2u, 3u, 7u, 64u, 4096u));

} // namespace
