#include "apps/navoxctl/monitor.h"

#include "apps/navoxctl/control_codes.h"

#include <array>
#include <cstdio>

namespace navoxctl {

const char* const kFixHeader =
    "DATE       TIME (UTC)       LATITUDE    LONGITUDE    ALT m FIX       SATS  HDOP KNOTS COURSE";

namespace {

// Prints what a port says, line by line or fix by fix.
class Printer {
  public:
    Printer(const Options& options, std::ostream& out) : options_(options), out_(out)
    {
        if (options_.decode)
            out_ << kFixHeader << std::endl;
    }

    bool Done() const { return !out_ || (options_.count && printed_ >= *options_.count); }

    void Take(std::string_view bytes)
    {
        lines_.Take(bytes, [this](std::string_view line) { TakeLine(line); });
        out_.flush(); // what came is seen at once, in a pipe too
    }

  private:
    void TakeLine(std::string_view line)
    {
        if (!options_.decode)
            Print(line);
        else if (const std::optional<Fix> fix = fixes_.Take(line))
            Print(FixRow(*fix));
    }

    void Print(std::string_view line)
    {
        if (Done())
            return;
        out_ << line << '\n';
        ++printed_;
    }

    const Options& options_;
    std::ostream& out_;
    LineSplitter lines_;
    FixAssembler fixes_;
    std::uint64_t printed_ = 0;
};

template <class T>
void Set(PortHandle& port, const char* what, std::uint32_t code, const T& value)
{
    port.Control(what, code, std::as_bytes(std::span(&value, 1)), {});
}

std::string Cell(const char* format, const std::optional<double>& value)
{
    std::array<char, 32> text{};
    if (!value)
        return "-";
    std::snprintf(text.data(), text.size(), format, *value);
    return text.data();
}

std::string Count(const std::optional<int>& value)
{
    return value ? std::to_string(*value) : "-";
}

} // namespace

std::string FixRow(const Fix& fix)
{
    const auto latitude = fix.position ? std::optional(fix.position->latitude) : std::nullopt;
    const auto longitude = fix.position ? std::optional(fix.position->longitude) : std::nullopt;
    const std::string satellites = Count(fix.used) + "/" + Count(fix.in_view);
    std::array<char, 256> row{};
    std::snprintf(row.data(), row.size(), "%-10s %-12s %12s %12s %8s %-9s %-5s %4s %5s %6s",
                  fix.date.empty() ? "-" : fix.date.c_str(), fix.time.empty() ? "-" : fix.time.c_str(),
                  Cell("%.6f", latitude).c_str(), Cell("%.6f", longitude).c_str(),
                  Cell("%.1f", fix.altitude).c_str(), QualityName(fix.quality), satellites.c_str(),
                  Cell("%.1f", fix.hdop).c_str(), Cell("%.1f", fix.speed).c_str(),
                  Cell("%.1f", fix.course).c_str());
    return row.data();
}

// A read returns at once with what is there. Nothing is lost between an empty read and the wait: the port
// keeps an event until it is waited for.
void MonitorPort(PortHandle& port, const Options& options, std::ostream& out)
{
    Set(port, "setting the time-outs", IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{0xFFFFFFFF, 0, 0, 0, 0});
    Set(port, "setting the wait mask", IOCTL_SERIAL_SET_WAIT_MASK, std::uint32_t{SERIAL_EV_RXCHAR});
    Printer printer(options, out);
    std::array<char, 4096> buffer{};
    while (!printer.Done()) {
        if (const std::size_t length = port.Read(buffer); length != 0) {
            printer.Take({buffer.data(), length});
            continue;
        }
        std::uint32_t events = 0;
        port.Control("waiting for data", IOCTL_SERIAL_WAIT_ON_MASK, {},
                     std::as_writable_bytes(std::span(&events, 1)));
    }
}

} // namespace navoxctl
