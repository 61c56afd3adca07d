#include "apps/navoxctl/list.h"

#include <algorithm>
#include <cctype>
#include <iomanip>
#include <string_view>

namespace navoxctl {
namespace {

constexpr std::string_view kDevicePrefix = "\\Device\\quorlex";
constexpr std::string_view kService = "navox";

bool SameText(std::string_view a, std::string_view b)
{
    return std::ranges::equal(
        a, b, [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

ListedPort* Find(std::vector<ListedPort>& ports, std::string_view name)
{
    const auto found =
        std::ranges::find_if(ports, [name](const ListedPort& p) { return SameText(p.port, name); });
    return found == ports.end() ? nullptr : &*found;
}

} // namespace

std::vector<ListedPort> ListPorts(const std::vector<MapEntry>& map,
                                  const std::vector<InterfaceEntry>& interfaces)
{
    std::vector<ListedPort> ports;
    for (const MapEntry& entry : map) {
        if (SameText(std::string_view(entry.device).substr(0, kDevicePrefix.size()), kDevicePrefix))
            ports.push_back({entry.port, entry.device, ""});
    }
    for (const InterfaceEntry& entry : interfaces) {
        if (ListedPort* known = Find(ports, entry.port))
            known->path = entry.path;
        else if (SameText(entry.service, kService))
            ports.push_back({entry.port, "", entry.path});
    }
    std::ranges::sort(ports, {}, [](const ListedPort& p) { return std::pair(p.port.size(), p.port); });
    return ports;
}

void PrintPorts(const std::vector<ListedPort>& ports, std::ostream& out)
{
    if (ports.empty()) {
        out << "no navox port is there\n";
        return;
    }
    const auto row = [&out](const std::string& port, const std::string& device, const std::string& path) {
        const auto cell = [](const std::string& text) { return text.empty() ? std::string("-") : text; };
        out << std::left << std::setw(8) << cell(port) << std::setw(20) << cell(device) << cell(path) << '\n';
    };
    row("PORT", "DEVICE", "INTERFACE");
    for (const ListedPort& port : ports)
        row(port.port, port.device, port.path);
}

} // namespace navoxctl
