// The store behind every open handle: a ring of unread bytes, or, while a read waits, that read's own buffer.
//
//                    a read still needs bytes (ring is empty)
//          +------+ ------------------------------------------> +-------------+
//          | ring |                                             | direct fill |
//          +------+ <------------------------------------------ +-------------+
//                    buffer full, time-out or cancel (ring is empty again)
//
// No kernel calls here. Append, EnterDirectFill, ResetToRing and Account run under the client lock. Take needs only the
// client's time-outs lock: it moves ReadPosition, which is otherwise set only where a waiting read ends, and reads are
// served one at a time.
#pragma once

#include "navox_ddk.h"
#include "racy.h"

struct ClientRing {
    PUCHAR RingBuffer;     // the storage, RingSize bytes
    PUCHAR FillBase;       // start of the area being filled: RingBuffer, or the waiting read's buffer
    Racy<ULONG> RingCount; // unread bytes in the ring
    PUCHAR WritePosition;  // next byte to be written
    PUCHAR LastSlot;       // last byte of the area being filled
    PUCHAR ReadPosition;   // oldest unread byte
    ULONG DirectFillCount; // bytes filled since the interval timer last looked
    ULONG RingSize;        // bytes

    bool IsDirectFill() const { return FillBase != RingBuffer; }

    // Starts with the first `primed` bytes of the storage unread.
    void Initialise(PUCHAR storage, ULONG size, ULONG primed)
    {
        ASSERT(primed < size);
        RingBuffer = FillBase = ReadPosition = storage;
        RingSize = size;
        RingCount = primed;
        WritePosition = storage + primed;
        LastSlot = storage + size - 1;
        DirectFillCount = 0;
    }

    // Appends a transfer. Bytes that do not fit are dropped: the oldest stay. Returns true when the transfer
    // filled the waiting read's buffer; the rest of it is then in the ring.
    [[nodiscard]] bool Append(const UCHAR* bytes, ULONG length)
    {
        bool readFilled = false;
        if (IsDirectFill() && length != 0) {
            const ULONG room = RoomInFill();
            const ULONG n = length < room ? length : room;
            RtlCopyMemory(WritePosition, bytes, n);
            DirectFillCount += n;
            WritePosition += n;
            bytes += n;
            length -= n;
            readFilled = n == room;
            if (readFilled)
                ResetToRing();
        }
        if (!IsDirectFill())
            AppendToRing(bytes, length);
        return readFilled;
    }

    // Copies up to `wanted` unread bytes out and returns how many. Account lowers the count afterwards.
    [[nodiscard]] ULONG Take(PUCHAR destination, ULONG wanted)
    {
        const ULONG unread = RingCount.Acquire(); // one look: Append may be adding to it
        const ULONG n = unread < wanted ? unread : wanted;
        const ULONG contiguous = static_cast<ULONG>(RingBuffer + RingSize - ReadPosition);
        if (n == 0)
            return 0;
        if (contiguous <= n) {
            RtlCopyMemory(destination, ReadPosition, contiguous);
            RtlCopyMemory(destination + contiguous, RingBuffer, n - contiguous);
            ReadPosition = RingBuffer + (n - contiguous);
        } else {
            RtlCopyMemory(destination, ReadPosition, n);
            ReadPosition += n;
        }
        return n;
    }

    void Account(ULONG taken)
    {
        ASSERT(taken <= RingCount);
        RingCount = RingCount - taken;
    }

    // `buffer` of `length` bytes holds `filled` already; the ring is empty.
    void EnterDirectFill(PUCHAR buffer, ULONG length, ULONG filled)
    {
        ASSERT(RingCount == 0 && filled < length);
        FillBase = buffer;
        WritePosition = buffer + filled;
        LastSlot = buffer + length - 1;
        DirectFillCount = 0;
    }

    // Bytes that the area being filled still has room for.
    ULONG RoomInFill() const { return static_cast<ULONG>(LastSlot - WritePosition + 1); }

    // Back to the ring, which is empty.
    void ResetToRing()
    {
        RingCount = 0;
        FillBase = WritePosition = ReadPosition = RingBuffer;
        LastSlot = RingBuffer + RingSize - 1;
    }

  private:
    void AppendToRing(const UCHAR* bytes, ULONG length)
    {
        const ULONG room = RingSize - RingCount;
        const ULONG n = length < room ? length : room;
        const ULONG beforeWrap = static_cast<ULONG>(LastSlot - WritePosition + 1);
        const ULONG first = n < beforeWrap ? n : beforeWrap;
        RtlCopyMemory(WritePosition, bytes, first);
        RtlCopyMemory(RingBuffer, bytes + first, n - first);
        WritePosition = n < beforeWrap ? WritePosition + n : RingBuffer + (n - first);
        RingCount.Release(RingCount + n); // the bytes first, for Take
    }
};
