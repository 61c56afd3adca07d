// A module that says what the test tells it to, packet by packet.
#pragma once

#include "rig.h"

#include "usbd/usb_port.h"

#include <deque>

namespace navox_test {

inline constexpr std::uint8_t kBulkIn = 0x82;

// A module that answers each command with the packets it was told to, and is silent when it was not told.
class ScriptedModule : public module::GpsModule {
  public:
    explicit ScriptedModule(std::vector<std::vector<std::string>> answers)
        : GpsModule(Mute()), answers_(std::move(answers))
    {}

    // A packet that comes without being asked for.
    void Send(std::string packet) { packets_.push_back(std::move(packet)); }

    module::Packet In(std::uint8_t endpoint) override
    {
        if (endpoint != kBulkIn)
            return GpsModule::In(endpoint);
        for (; heard_ < Look().at_command_count && heard_ < answers_.size(); ++heard_)
            packets_.insert(packets_.end(), answers_[heard_].begin(), answers_[heard_].end());
        if (packets_.empty())
            return {};
        const std::string packet = packets_.front();
        packets_.pop_front();
        return {module::Handshake::Ack, {packet.begin(), packet.end()}};
    }

  private:
    static module::GpsModuleOptions Mute()
    {
        module::GpsModuleOptions options;
        options.echo = false;
        options.faults.answers = {{.kind = module::AnswerFault::Kind::Nothing, .times = 1'000'000}};
        return options;
    }

    const std::vector<std::vector<std::string>> answers_; // to the first command, the second ...
    std::size_t heard_ = 0;
    std::deque<std::string> packets_;
};

// A machine with a scripted module.
struct Conversation {
    explicit Conversation(std::vector<std::vector<std::string>> answers, RigOptions options = {})
        : rig(WithoutModule(std::move(options)))
    {
        rig.module = device = std::make_shared<ScriptedModule>(std::move(answers));
        rig.usb_port = host::UsbBus::Current().Plug(device);
        host::PnpManager::Current().Settle();
    }
    void Send(std::string packet)
    {
        device->Send(std::move(packet));
        host::UsbBus::Current().Ports().front()->Poke();
    }

    std::shared_ptr<ScriptedModule> device;
    Rig rig;

  private:
    static RigOptions WithoutModule(RigOptions options)
    {
        options.plug = false;
        return options;
    }
};

} // namespace navox_test
