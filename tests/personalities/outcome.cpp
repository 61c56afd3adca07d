#include "tests/personalities/outcome.h"

#include "apps/navoxctl/nmea.h"
#include "apps/system.h"
#include "module/nmea_generator.h"
#include "module/nmea_sentence.h"

namespace personalities {
namespace {

constexpr host::Time kMinute = 60 * host::kSecond;
constexpr host::Time kUnplugAt = 30'300 * host::kMillisecond; // between two fixes, and between two time-outs
constexpr host::Time kStartUp = 4 * host::kSecond;            // from the first open to the first fix, at most
constexpr std::string_view kEmptySentence = "$GPGGA,,,,,,0,00,0.5,,M,,,,*00";

std::optional<Failure> Attempt(Library& library, void (Library::*step)())
{
    try {
        (library.*step)();
    } catch (const CallFailed& failed) {
        return failed.failure;
    }
    return {};
}

// A machine with a module, and a program on it.
class Machine {
  public:
    explicit Machine(const host::KernelOptions& options)
        : system_({.kernel = options, .source = std::make_unique<module::NmeaGenerator>(1)})
    {
        system_.Plug();
    }

    // Opens, runs until the session stops, and closes.
    void Start(const Personality& personality, Session& session, Outcome& outcome)
    {
        program_ = system_.Kernel().Spawn(personality.name, [&] {
            const std::unique_ptr<Library> library = personality.make(session);
            outcome.refused = Attempt(*library, &Library::Open);
            if (!outcome.refused) {
                outcome.end = Attempt(*library, &Library::Run);
                outcome.closing = Attempt(*library, &Library::Close);
            }
            host::nt::CancelThreadIo();
        });
    }

    void RunFor(host::Time time) { system_.Kernel().RunFor(time); }
    void Unplug() { system_.Unplug(); }

    // Throws std::runtime_error when the driver cannot be unloaded.
    void Finish(Session& session)
    {
        session.Stop();
        program_.Join();
        system_.Unplug();
        if (!system_.Unload())
            throw std::runtime_error("the driver cannot be unloaded: something of the port is still open");
    }

    const std::string& PortName() const { return system_.PortName(); }

  private:
    app::System system_;
    host::ThreadHandle program_;
};

std::string Joined(const std::vector<std::string>& texts)
{
    std::string joined;
    for (const std::string& text : texts)
        joined += (joined.empty() ? "" : "; ") + text;
    return joined.empty() ? "-" : joined;
}

} // namespace

std::string StreamDamage(std::string_view stream, host::Time time)
{
    std::string damage;
    std::optional<module::Time> last;
    host::Time fixes = 0;
    std::size_t lines = 0;
    const auto look = [&](std::string_view line) {
        if (!damage.empty())
            return;
        if (lines++ == 0) {
            damage = line == kEmptySentence ? "" : "it does not begin with the empty sentence";
            return;
        }
        if (!navoxctl::ParseSentence(line)) {
            damage = "damaged: " + std::string(line);
        } else if (line.starts_with("$GPGGA")) {
            const std::optional<module::Time> fix = module::NmeaTimeOfDay(line);
            if (!fix || (last && *fix != *last + module::kSecond))
                damage = "fixes are missing before " + std::string(line);
            last = fix;
            ++fixes;
        }
    };
    navoxctl::LineSplitter().Take(stream, look);
    if (damage.empty() && fixes * host::kSecond < time - kStartUp)
        damage = "only " + std::to_string(fixes) + " fixes";
    return damage;
}

std::string Outcome::Result() const
{
    if (refused)
        return "refuses to open";
    if (!damage.empty())
        return "fails: " + damage;
    return notices.empty() ? "works" : "works with an oddity";
}

std::string Outcome::Notices() const
{
    return refused ? refused->Text() : Joined(notices);
}

std::string Outcome::Unplugged() const
{
    if (refused)
        return "-";
    const std::string ending = end ? end->Text() : "it reads on and notices nothing";
    return closing ? ending + "; closing reports that " + closing->Text() : ending;
}

Outcome Try(const Personality& personality, const host::KernelOptions& options)
{
    Outcome outcome;
    {
        Machine machine(options);
        Session session(machine.PortName());
        machine.Start(personality, session, outcome);
        machine.RunFor(kMinute);
        machine.Finish(session);
        outcome.notices = session.notices;
        if (!outcome.refused)
            outcome.damage = outcome.end ? "reading ends: " + outcome.end->Text()
                                         : StreamDamage(session.received, kMinute);
        if (outcome.closing)
            outcome.notices.push_back("closing: " + outcome.closing->Text());
    }
    Machine machine(options);
    Session session(machine.PortName());
    Outcome unplugged;
    machine.Start(personality, session, unplugged);
    machine.RunFor(kUnplugAt);
    machine.Unplug();
    machine.RunFor(kMinute - kUnplugAt);
    machine.Finish(session);
    outcome.end = unplugged.end;
    outcome.closing = unplugged.closing;
    return outcome;
}

} // namespace personalities
