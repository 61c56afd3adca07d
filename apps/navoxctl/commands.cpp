#include "apps/navoxctl/commands.h"

#include "apps/navoxctl/control_codes.h"
#include "apps/navoxctl/list.h"
#include "apps/navoxctl/monitor.h"

#include <iomanip>

namespace navoxctl {
namespace {

constexpr int kDone = 0;
constexpr int kRefused = 1;
constexpr int kBadUsage = 2;

std::uint32_t AskNumber(PortHandle& port, const char* what, std::uint32_t code)
{
    std::uint32_t value = 0;
    port.Control(what, code, {}, std::as_writable_bytes(std::span(&value, 1)));
    return value;
}

template <std::size_t N>
std::string AskText(PortHandle& port, const char* what, std::uint32_t code)
{
    char text[N + 1] = {}; // a text without an end gets one
    port.Control(what, code, {}, std::as_writable_bytes(std::span(text, N)));
    return text;
}

void ShowInfo(PortHandle& port, const std::string& name, std::ostream& out)
{
    const auto line = [&out](const char* title, const auto& value) {
        out << std::left << std::setw(16) << title << value;
        return &out;
    };
    *line("port", name) << '\n';
    *line("number", AskNumber(port, "the port number", IOCTL_GPS_GET_COMM_PORT)) << '\n';
    *line("version", AskText<GPS_VERSION_SIZE>(port, "the version", IOCTL_GPS_QUERY_VERSION)) << '\n';
    *line("short version",
          AskText<GPS_SHORT_VERSION_SIZE>(port, "the short version", IOCTL_GPS_QUERY_SHORT_VERSION))
        << '\n';
    *line("build date", AskText<GPS_BUILD_DATE_SIZE>(port, "the build date", IOCTL_GPS_QUERY_BUILD_DATE))
        << '\n';
    *line("handles open", AskNumber(port, "the number of applications", IOCTL_GPS_GET_APPLICATION_COUNT))
        << ", this one included\n";
    *line("NMEA mode", AskNumber(port, "the NMEA mode", IOCTL_GPS_GET_NMEA_MODE)) << '\n';
}

void SetNmeaMode(PortHandle& port, std::uint32_t mode)
{
    port.Control("setting the NMEA mode", IOCTL_GPS_SET_NMEA_MODE, std::as_bytes(std::span(&mode, 1)), {});
}

void Carry(const Options& options, System& system, std::ostream& out)
{
    if (options.action == Action::Help) {
        out << kUsage;
        return;
    }
    if (options.action == Action::List) {
        PrintPorts(ListPorts(system.SerialMap(), system.ComInterfaces()), out);
        return;
    }
    const std::unique_ptr<PortHandle> port = system.Open(options.port);
    switch (options.action) {
    case Action::Info: return ShowInfo(*port, options.port, out);
    case Action::SetNmeaMode: return SetNmeaMode(*port, options.nmea_mode);
    default: return MonitorPort(*port, options, out);
    }
}

} // namespace

int Run(std::span<const std::string_view> arguments, System& system, std::ostream& out, std::ostream& error)
{
    Options options;
    try {
        options = ParseOptions(arguments);
    } catch (const UsageError& mistake) {
        error << "navoxctl: " << mistake.what() << "; see navoxctl help\n";
        return kBadUsage;
    }
    try {
        Carry(options, system, out);
    } catch (const SystemError& refusal) {
        out.flush();
        error << "navoxctl: " << (options.port.empty() ? "" : options.port + ": ") << refusal.what() << ": "
              << system.ErrorText(refusal.code) << " (" << refusal.code << ")\n";
        return kRefused;
    }
    return kDone;
}

} // namespace navoxctl
