#include "windows/rig/program/rig_test.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr DWORD kScenarioLimit = 30'000; // ms
constexpr const char* kReadyVariable = "RIG_READY";

std::string OwnPath()
{
    char path[MAX_PATH] = {};
    CHECK(GetModuleFileNameA(nullptr, path, sizeof path) != 0);
    return path;
}

Handle Start(const std::string& name, const Arguments& arguments)
{
    std::string line = "\"" + OwnPath() + "\" run " + name;
    for (const std::string& argument : arguments)
        line += " \"" + argument + "\"";
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    CHECK(CreateProcessA(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                         &process));
    CloseHandle(process.hThread);
    return Handle(process.hProcess);
}

// Whatever a scenario leaves running ends with it.
DWORD RunBounded(const std::string& name)
{
    const Handle job(CreateJobObjectA(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    CHECK(SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits));
    const Handle process = Start(name, {});
    CHECK(AssignProcessToJobObject(job, process));
    if (WaitForSingleObject(process, kScenarioLimit) != WAIT_OBJECT_0) {
        std::printf("    still running after %lu ms\n", kScenarioLimit);
        TerminateJobObject(job, 2);
        return 2;
    }
    DWORD code = 0;
    CHECK(GetExitCodeProcess(process, &code));
    return code;
}

// True when the scenario did what it should. Throws when the bus does not come to rest after it.
bool RunScenario(const std::string& name)
{
    const ULONGLONG start = GetTickCount64();
    bool good = RunBounded(name) == 0;
    Rig rig;
    rig.Empty();
    for (const std::string& finding : rig.TakeFindings()) {
        std::printf("    found: %s\n", finding.c_str());
        good = false;
    }
    std::printf("%s %s (%llu ms)\n", good ? "ok    " : "FAILED", name.c_str(), GetTickCount64() - start);
    std::fflush(stdout);
    return good;
}

int RunAll(const Arguments& arguments)
{
    for (auto name = arguments.begin() + 1; name != arguments.end(); ++name) {
        if (!Piece::All().contains(*name) || !Piece::All()[*name].scenario)
            throw std::runtime_error(*name + " is no scenario");
    }
    Install(arguments.at(0));
    int failed = 0;
    int run = 0;
    for (const auto& [name, entry] : Piece::All()) {
        const bool wanted = arguments.size() == 1 ||
                            std::find(arguments.begin() + 1, arguments.end(), name) != arguments.end();
        if (!entry.scenario || !wanted)
            continue;
        ++run;
        try {
            failed += RunScenario(name) ? 0 : 1;
        } catch (const std::exception& error) {
            std::printf("FAILED %s, and nothing can be tested after it: %s\n", name.c_str(), error.what());
            return 1;
        }
    }
    std::printf("%d scenarios, %d failed\n", run, failed);
    return failed == 0 && run != 0 ? 0 : 1;
}

} // namespace

Piece::Piece(const char* name, bool scenario, void (*run)(const Arguments& arguments))
{
    All()[name] = {scenario, run};
}

std::map<std::string, Piece::Entry>& Piece::All()
{
    static std::map<std::string, Entry> all;
    return all;
}

void Fail(const char* file, int line, const std::string& text)
{
    const char* name = std::strrchr(file, '/');
    throw std::runtime_error(std::string(name == nullptr ? file : name + 1) + ":" + std::to_string(line) +
                             ": " + text);
}

void WaitUntil(const char* what, const std::function<bool()>& condition)
{
    const ULONGLONG end = GetTickCount64() + kPatience;
    while (!condition()) {
        if (GetTickCount64() > end)
            throw std::runtime_error(std::string("waited in vain: ") + what);
        Sleep(5);
    }
}

Child::Child(const std::string& role, const Arguments& arguments)
    : ready_([] {
          SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
          return CreateEventA(&inherited, TRUE, FALSE, nullptr);
      }()),
      process_([&]() -> HANDLE {
          const auto number = reinterpret_cast<std::uintptr_t>(static_cast<HANDLE>(ready_));
          SetEnvironmentVariableA(kReadyVariable, std::to_string(number).c_str());
          Handle started = Start(role, arguments);
          HANDLE copy = nullptr;
          CHECK(DuplicateHandle(GetCurrentProcess(), started, GetCurrentProcess(), &copy, 0, FALSE,
                                DUPLICATE_SAME_ACCESS));
          return copy;
      }())
{}

Child::~Child()
{
    if (process_ != nullptr && WaitForSingleObject(process_, 0) != WAIT_OBJECT_0)
        TerminateProcess(process_, 3);
}

void Child::WaitReady()
{
    const HANDLE either[] = {ready_, process_};
    CHECK_EQ(WaitForMultipleObjects(2, either, FALSE, kPatience), WAIT_OBJECT_0);
}

void Child::Expect(DWORD exit_code)
{
    CHECK_EQ(WaitForSingleObject(process_, kPatience), WAIT_OBJECT_0);
    DWORD code = 0;
    CHECK(GetExitCodeProcess(process_, &code));
    CHECK_EQ(code, exit_code);
}

void Child::Kill()
{
    CHECK(TerminateProcess(process_, 3));
    CHECK_EQ(WaitForSingleObject(process_, kPatience), WAIT_OBJECT_0);
}

void SignalReady()
{
    const char* number = std::getenv(kReadyVariable);
    CHECK(number != nullptr);
    CHECK(SetEvent(reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(std::stoull(number)))));
}

int main(int count, char** values)
try {
    const Arguments arguments(values + 1, values + count);
    if (arguments.size() >= 2 && arguments[0] == "all")
        return RunAll({arguments.begin() + 1, arguments.end()});
    if (arguments.size() >= 2 && arguments[0] == "run" && Piece::All().contains(arguments[1])) {
        Piece::All()[arguments[1]].run({arguments.begin() + 2, arguments.end()});
        return 0;
    }
    std::fprintf(stderr, "rig_test.exe all <folder> [scenario...] | run <scenario or role> [argument...]\n");
    return 2;
} catch (const std::exception& error) {
    std::printf("    %s\n", error.what());
    return 1;
}
