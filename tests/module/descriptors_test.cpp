#include "module/descriptors.h"

#include "module/test_host.h"

#include <set>

namespace module {
namespace {

// What a driver need not look at is here, too: association and functional descriptors.
TEST(Descriptors, AreThoseOfAnAcmFunction)
{
    const DescriptorSet set({.speed = Speed::Full,
                             .remote_wakeup = false,
                             .self_powered = true,
                             .bulk_out_first = true,
                             .comm_interface = 6,
                             .data_interface = 5,
                             .interrupt_in = 0x85,
                             .bulk_in = 0x81,
                             .bulk_out = 0x01});
    const Bytes function{9, 2,    75,   0,    2,  1,  0,  0xC0, 250, // two interfaces
                         8, 11,   5,    2,    2,  2,  1,  0,         // associated from number 5 on
                         9, 4,    6,    0,    1,  2,  2,  1,    0,   // communications
                         5, 0x24, 0,    0x10, 1,                     // header
                         5, 0x24, 1,    0,    5,                     // call management
                         4, 0x24, 2,    7,                           // abstract control model
                         5, 0x24, 6,    6,    5,                     // union
                         7, 5,    0x85, 3,    16, 0,  16,            // interrupt in
                         9, 4,    5,    0,    2,  10, 0,  0,    0,   // data
                         7, 5,    0x01, 2,    64, 0,  0,             // bulk out
                         7, 5,    0x81, 2,    64, 0,  0};            // bulk in
    EXPECT_EQ(set.Find(kConfigurationDescriptor, 0, 0), function);
}

TEST(Descriptors, NoTwoLiesAreTheSame)
{
    std::set<Bytes> told;
    for (int i = 0; i < static_cast<int>(Lie::Count_); ++i) {
        const DescriptorSet set({}, static_cast<Lie>(i));
        Bytes both = *set.Find(kDeviceDescriptor, 0, 0);
        both.push_back(0);
        const Bytes configuration = *set.Find(kConfigurationDescriptor, 0, 0);
        both.insert(both.end(), configuration.begin(), configuration.end());
        EXPECT_TRUE(told.insert(both).second) << Name(static_cast<Lie>(i));
    }
}

TEST(Descriptors, TheOtherSpeedIsDescribedByAHighSpeedModuleOnly)
{
    TestHost high;
    TestHost full({.function = {.speed = Speed::Full}});
    Bytes other = full.Descriptor(kConfigurationDescriptor);
    other[1] = kOtherSpeedConfigurationDescriptor;
    EXPECT_EQ(high.Descriptor(kOtherSpeedConfigurationDescriptor), other);
    EXPECT_EQ(high.Descriptor(kDeviceQualifierDescriptor), (Bytes{10, 6, 0, 2, 0xEF, 2, 1, 64, 1, 0}));
    for (const std::uint16_t type : {0x0600, 0x0700})
        EXPECT_EQ(full.Request(0x80, 6, type, 0, 255).handshake, Handshake::Stall);
}

TEST(Descriptors, IdsAreThoseAskedFor)
{
    TestHost host({.function = {.idVendor = 0xABCD, .idProduct = 0x1234}});
    const Bytes device = host.Descriptor(kDeviceDescriptor);
    EXPECT_EQ(Bytes(device.begin(), device.begin() + 12),
              (Bytes{18, 1, 0, 2, 0xEF, 2, 1, 64, 0xCD, 0xAB, 0x34, 0x12}));
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
