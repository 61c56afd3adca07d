#include "apps/service.h"

#include "apps/clients.h"
#include "apps/console_input.h"
#include "apps/pty.h"
#include "apps/runtime_folder.h"
#include "apps/status.h"
#include "apps/summary.h"
#include "apps/system.h"
#include "apps/tcp_server.h"
#include "module/nmea_generator.h"
#include "module/nmea_replay.h"

#include <asio/signal_set.hpp>
#include <asio/steady_timer.hpp>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fmt/core.h>
#include <fstream>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace app {
namespace {

std::unique_ptr<module::NmeaSource> MakeSource(const Options& options)
{
    if (options.rate == 0)
        return nullptr;
    try {
        if (options.replay.empty())
            return std::make_unique<module::NmeaGenerator>(options.rate.value_or(kDefaultRate));
        return std::make_unique<module::NmeaReplay>(
            module::NmeaReplay::FromFile(options.replay, {.rate = options.rate, .loop = true}));
    } catch (const std::invalid_argument& error) {
        throw UsageError(options.replay.empty() ? fmt::format("--rate: {}", error.what())
                                                : fmt::format("{}: {}", options.replay, error.what()));
    } catch (const std::runtime_error& error) {
        throw UsageError(error.what());
    }
}

SystemOptions MakeSystemOptions(const Options& options)
{
    SystemOptions system;
    system.kernel.mode = host::Mode::Live;
    system.kernel.policy = host::Policy::Record;
    system.kernel.guard_pages = false; // a page for each lost work item is too much in a long run
    system.kernel.keep_events = !options.trace.empty();
    system.kernel.on_finding = [](const host::Finding& finding) {
        spdlog::error("the verifier has found {}: {}", host::NameOf(finding.rule), finding.text);
    };
    system.kernel.echo_debug_prints = options.log_level <= spdlog::level::debug;
    system.registry_file = options.registry;
    system.port_name = options.port.value_or(kDefaultPort);
    system.rename = options.port.has_value();
    if (options.selective_suspend)
        system.settings[u"EnableSelectiveSuspend"] = 1;
    if (options.fast_resume)
        system.settings[u"EnableFR"] = 1;
    system.source = MakeSource(options);
    return system;
}

std::unique_ptr<System> MakeSystem(const Options& options)
{
    try {
        return std::make_unique<System>(MakeSystemOptions(options));
    } catch (const RegistryError& error) {
        throw UsageError(fmt::format("{}: {}", options.registry, error.what()));
    }
}

// Our own descriptor for standard output, one that does not block; other programs may share the terminal.
UniqueFd OpenOutput()
{
    struct stat info {};
    if (::fstat(STDOUT_FILENO, &info) == 0 && (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode))) {
        const int own = ::open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (own >= 0)
            return UniqueFd(own);
    }
    return UniqueFd(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
}

// What is found now costs nobody a run.
void CheckWritable(const std::string& file)
{
    if (!file.empty() && !std::ofstream(file, std::ios::app))
        throw UsageError(fmt::format("cannot write {}", file));
}

// Lets a trace be laid beside logs of other programs.
void LogClock(System& system)
{
    constexpr host::Time kUnixEpoch = 11'644'473'600 * host::kSecond; // in system time
    const host::Time now = system.Kernel().Now() - kUnixEpoch;
    system.Kernel().Log().Instant("host", "Unix time",
                                  fmt::format("{}.{:07}", now / host::kSecond, now % host::kSecond));
}

class Service {
  public:
    explicit Service(const Options& options);
    int Run();

  private:
    std::string Table() { return FormatStatus(*system_, clients_); }
    void OpenPort();
    void ClosePort();
    void AwaitEnd();
    void AwaitTableSignal();
    std::string Save();
    int Finish();

    const Options& options_;
    const std::vector<Command> script_;
    std::unique_ptr<System> system_;
    asio::io_context io_{1};
    Clients clients_;
    TcpServer tcp_;
    asio::signal_set end_signals_{io_, SIGINT, SIGTERM, SIGHUP};
    asio::signal_set table_signal_{io_, SIGUSR1};
    asio::steady_timer end_{io_};
    std::unique_ptr<StatusServer> status_;
    std::vector<std::unique_ptr<Pty>> ptys_;
    std::string folder_;
    bool port_open_ = false;
    Console console_{
        *system_, clients_, {[this] { OpenPort(); }, [this] { ClosePort(); }, [this] { return Table(); }}};
    CommandQueue script_queue_{io_, console_};
    std::optional<StandardInput> input_;
};

Service::Service(const Options& options)
    : options_(options),
      script_(options.script.empty() ? std::vector<Command>() : LoadScript(options.script)),
      system_(MakeSystem(options)), clients_(io_, *system_), tcp_(io_, clients_, options.tcp)
{
    std::signal(SIGPIPE, SIG_IGN);
    CheckWritable(options.trace);
    CheckWritable(options.registry);
    folder_ = MakeRuntimeFolder();
    LogClock(*system_);
    system_->Plug();
    const std::string& port = system_->PortName();
    status_ = std::make_unique<StatusServer>(io_, StatusPath(folder_, port), [this] { return Table(); });
    spdlog::info("plugged in: {}; status: {}", port, StatusPath(folder_, port));
    OpenPort();
    spdlog::info("tcp {}", tcp_.Address());
}

// What programs open, and our own handle.
void Service::OpenPort()
{
    port_open_ = true;
    for (int number = 1; number <= options_.ptys; ++number) {
        ptys_.push_back(std::make_unique<Pty>(io_, clients_,
                                              fmt::format("{}/{}-{}", folder_, system_->PortName(), number)));
        spdlog::info("terminal {} -> {}", ptys_.back()->Link(), ptys_.back()->Device());
    }
    if (!options_.quiet)
        clients_.Open("standard output", OpenOutput(), [this] {
            if (port_open_)
                spdlog::warn("nobody reads standard output");
        });
}

void Service::ClosePort()
{
    port_open_ = false;
    clients_.HangUp();
    ptys_.clear();
}

void Service::AwaitEnd()
{
    end_signals_.async_wait([this](const asio::error_code& error, int) {
        if (error)
            return;
        asio::error_code ignored;
        end_signals_.clear(ignored); // a second one ends the process at once
        io_.stop();
    });
    if (!options_.run_for)
        return;
    end_.expires_after(*options_.run_for);
    end_.async_wait([this](const asio::error_code& error) {
        if (!error)
            io_.stop();
    });
}

void Service::AwaitTableSignal()
{
    table_signal_.async_wait([this](const asio::error_code& error, int) {
        if (error)
            return;
        std::fputs(Table().c_str(), stderr);
        AwaitTableSignal();
    });
}

int Service::Run()
{
    AwaitEnd();
    AwaitTableSignal();
    for (const Command& command : script_)
        script_queue_.Add(command);
    input_.emplace(io_, console_);
    io_.run();
    return Finish();
}

// Each file is written whatever becomes of the other. What is wrong; empty: nothing.
std::string Service::Save()
{
    std::string wrong;
    const auto attempt = [&](const std::string& file, void (System::*save)(const std::string&)) {
        try {
            if (!file.empty())
                (*system_.*save)(file);
        } catch (const std::exception& error) {
            wrong += (wrong.empty() ? "" : "; ") + std::string(error.what());
        }
    };
    attempt(options_.registry, &System::SaveRegistry);
    attempt(options_.trace, &System::SaveTrace);
    return wrong;
}

int Service::Finish()
{
    if (system_->Plugged())
        spdlog::info("unplugging");
    system_->Unplug();
    ptys_.clear();
    clients_.CloseAll();
    status_.reset();
    if (!system_->Unload())
        throw std::runtime_error("the driver cannot be unloaded: its device has not gone");
    const std::string unsaved = Save();
    system_->End();
    const std::vector<host::Finding> findings = system_->Findings();
    std::fputs(FormatSummary(clients_.Totals(), system_->Module().Look(), findings).c_str(), stderr);
    if (!unsaved.empty())
        throw UsageError(unsaved);
    return findings.empty() ? 0 : 1;
}

} // namespace

int Serve(const Options& options)
{
    return Service(options).Run();
}

} // namespace app
