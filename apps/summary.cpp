#include "apps/summary.h"

#include <fmt/format.h>

namespace app {

std::string FormatSummary(const ClientTotals& clients, const module::ModuleStatus& module,
                          const std::vector<host::Finding>& findings)
{
    std::string text =
        fmt::format("clients    {} opened the port; {} bytes delivered, {} dropped by full rings, {} "
                    "written and discarded\n"
                    "transfers  {} with {} bytes, {} of them sentences\n"
                    "findings   {}\n",
                    clients.opened, clients.counts.delivered, clients.dropped, clients.counts.written,
                    module.transfers_sent, module.bytes_sent, module.sentence_bytes,
                    findings.empty() ? "none" : std::to_string(findings.size()));
    for (const host::Finding& finding : findings)
        text += host::FormatFinding(finding) + "\n";
    return text;
}

} // namespace app
