#include "module/descriptors.h"

#include "module/test_host.h"

#include <map>
#include <set>

namespace module {
namespace {

// What a careful host finds wrong. It reads the bytes by itself and knows nothing of the builder.
class Inspector {
  public:
    explicit Inspector(Speed speed) : speed_(speed) {}

    std::vector<std::string> problems;

    void Check(bool good, const std::string& problem)
    {
        if (!good)
            problems.push_back(problem);
    }

    void Device(const Bytes& d)
    {
        Check(d.size() == 18 && d[0] == 18 && d[1] == 1, "device descriptor");
        if (d.size() == 18) {
            Check(d[4] == 0xEF && d[5] == 2 && d[6] == 1, "device class of an interface association");
            Check(d[7] == 64, "control packet size");
            Check(d[17] == 1, "number of configurations");
        }
    }

    void Configuration(const Bytes& c)
    {
        if (c.size() < 9 || c[0] != 9) {
            problems.emplace_back("configuration descriptor");
            return;
        }
        Check((c[2] | c[3] << 8) == static_cast<int>(c.size()), "wTotalLength");
        Check((c[7] & 0x9F) == 0x80, "bmAttributes");
        std::size_t at = 9;
        while (at + 2 <= c.size() && c[at] >= 2 && at + c[at] <= c.size()) {
            One(Bytes(c.begin() + static_cast<long>(at), c.begin() + static_cast<long>(at + c[at])));
            at += c[at];
        }
        Check(at == c.size(), "lengths do not sum up");
        Check(interfaces_.size() == c[4], "bNumInterfaces");
        Function();
    }

  private:
    struct Interface {
        Bytes descriptor;
        std::map<int, Bytes> functional; // by subtype
        std::vector<Bytes> endpoints;
    };

    void One(const Bytes& d)
    {
        if (d[1] == 11 && d.size() == 8) {
            association_ = d;
        } else if (d[1] == 4 && d.size() == 9) {
            Check(d[3] == 0, "alternate setting");
            current_ = &interfaces_[d[2]];
            *current_ = {d, {}, {}};
        } else if (current_ == nullptr) {
            problems.emplace_back("descriptor outside an interface");
        } else if (d[1] == 0x24 && d.size() >= 4) {
            current_->functional[d[2]] = d;
        } else if (d[1] == 5 && d.size() == 7) {
            current_->endpoints.push_back(d);
            Check(addresses_.insert(d[2]).second, "endpoint address given twice");
            Check((d[4] | d[5] << 8) != 0, "wMaxPacketSize");
        } else {
            problems.emplace_back("unknown descriptor");
        }
    }

    void Endpoint(const Bytes& e, int type, bool in)
    {
        const int size = e[4] | e[5] << 8;
        Check((e[3] & 3) == type, "endpoint type");
        Check(((e[2] & 0x80) != 0) == in, "endpoint direction");
        if (type == 2) {
            Check(size == (speed_ == Speed::High ? 512 : 64), "bulk packet size");
        } else {
            Check(size <= 64 && e[6] >= 1 && e[6] <= (speed_ == Speed::High ? 16 : 255),
                  "interrupt endpoint");
        }
    }

    void Function()
    {
        const Interface* comm = nullptr;
        const Interface* data = nullptr;
        for (const auto& [number, interface] : interfaces_) {
            Check(interface.descriptor[4] == interface.endpoints.size(), "bNumEndpoints");
            comm = interface.descriptor[5] == 2 ? &interface : comm;
            data = interface.descriptor[5] == 10 ? &interface : data;
        }
        if (comm == nullptr || data == nullptr || comm->endpoints.size() != 1 ||
            data->endpoints.size() != 2) {
            problems.emplace_back("interfaces and their endpoints");
            return;
        }
        Check(comm->descriptor[6] == 2 && comm->descriptor[7] == 1, "ACM with AT commands");
        Check(data->descriptor[6] == 0 && data->descriptor[7] == 0, "data class");
        Endpoint(comm->endpoints[0], 3, true);
        const bool in_first = (data->endpoints[0][2] & 0x80) != 0;
        Endpoint(data->endpoints[in_first ? 0 : 1], 2, true);
        Endpoint(data->endpoints[in_first ? 1 : 0], 2, false);

        const std::uint8_t comm_number = comm->descriptor[2];
        const std::uint8_t data_number = data->descriptor[2];
        Check(association_.size() == 8 && association_[3] == 2 &&
                  association_[2] == std::min(comm_number, data_number) &&
                  std::max(comm_number, data_number) == association_[2] + 1,
              "interface association");
        const auto& f = comm->functional;
        Check(f.count(0) == 1 && f.at(0)[3] == 0x10 && f.at(0)[4] == 0x01, "header");
        Check(f.count(1) == 1 && f.at(1)[4] == data_number, "call management");
        Check(f.count(2) == 1 && f.at(2)[3] == 0x07, "ACM capabilities");
        Check(f.count(6) == 1 && f.at(6)[3] == comm_number && f.at(6)[4] == data_number, "union");
    }

    Speed speed_;
    Bytes association_;
    std::map<int, Interface> interfaces_;
    Interface* current_ = nullptr;
    std::set<int> addresses_;
};

std::vector<std::string> ProblemsOf(const FunctionOptions& options, Lie lie = Lie::None)
{
    const DescriptorSet set(options, lie);
    Inspector inspector(options.speed);
    inspector.Device(*set.Find(kDeviceDescriptor, 0, 0));
    inspector.Configuration(*set.Find(kConfigurationDescriptor, 0, 0));
    return inspector.problems;
}

TEST(Descriptors, AreThoseOfAnAcmFunction)
{
    const FunctionOptions variants[] = {
        {},
        {.speed = Speed::Full},
        {.speed = Speed::Full, .bulk_out_first = true},
        {.remote_wakeup = false, .self_powered = true},
        {.comm_interface = 3, .data_interface = 4},
        {.comm_interface = 6, .data_interface = 5},
        {.interrupt_in = 0x85, .bulk_in = 0x81, .bulk_out = 0x01},
    };
    for (const FunctionOptions& options : variants)
        EXPECT_EQ(ProblemsOf(options), std::vector<std::string>{});
}

TEST(Descriptors, EveryLieIsSeenByACarefulHost)
{
    std::set<Bytes> told;
    for (int i = 1; i < static_cast<int>(Lie::Count_); ++i) {
        const Lie lie = static_cast<Lie>(i);
        EXPECT_FALSE(ProblemsOf({}, lie).empty()) << Name(lie);
        Bytes both = *DescriptorSet({}, lie).Find(kDeviceDescriptor, 0, 0);
        const Bytes configuration = *DescriptorSet({}, lie).Find(kConfigurationDescriptor, 0, 0);
        both.insert(both.end(), configuration.begin(), configuration.end());
        EXPECT_TRUE(told.insert(both).second) << Name(lie) << " is another lie told again";
    }
}

TEST(Descriptors, TheOtherSpeedIsDescribedByAHighSpeedModuleOnly)
{
    TestHost high;
    TestHost full({.function = {.speed = Speed::Full}});
    Inspector inspector(Speed::Full);
    inspector.Configuration(high.Descriptor(kOtherSpeedConfigurationDescriptor));
    EXPECT_EQ(inspector.problems, std::vector<std::string>{});
    EXPECT_EQ(high.Descriptor(kDeviceQualifierDescriptor), (Bytes{10, 6, 0, 2, 0xEF, 2, 1, 64, 1, 0}));
    for (const std::uint16_t type : {0x0600, 0x0700})
        EXPECT_EQ(full.Request(0x80, 6, type, 0, 255).handshake, Handshake::Stall);
}

TEST(Descriptors, AttributesAndIdsAreThoseAskedFor)
{
    TestHost sleepy({.function = {.idVendor = 0xABCD, .idProduct = 0x1234, .remote_wakeup = false}});
    const Bytes device = sleepy.Descriptor(kDeviceDescriptor);
    EXPECT_EQ(Bytes(device.begin() + 8, device.begin() + 12), (Bytes{0xCD, 0xAB, 0x34, 0x12}));
    EXPECT_EQ(sleepy.Descriptor(kConfigurationDescriptor)[7], 0x80);
    EXPECT_EQ(TestHost().Descriptor(kConfigurationDescriptor)[7], 0xA0);
    EXPECT_EQ(sleepy.Descriptor(kConfigurationDescriptor, 9).size(), 9U);
}

TEST(Descriptors, StringsAreUtf16InTheOneLanguage)
{
    const DescriptorSet set({.manufacturer = "Ab", .serial = std::string(300, 'x')});
    EXPECT_EQ(set.Find(kStringDescriptor, 0, 0), (Bytes{4, 3, 0x09, 0x04}));
    EXPECT_EQ(set.Find(kStringDescriptor, 1, 0x0409), (Bytes{6, 3, 'A', 0, 'b', 0}));
    EXPECT_EQ(set.Find(kStringDescriptor, 3, 0x0409)->size(), 254U);
    EXPECT_FALSE(set.Find(kStringDescriptor, 1, 0x0407));
    EXPECT_FALSE(set.Find(kStringDescriptor, 4, 0x0409));
}

} // namespace
} // namespace module
