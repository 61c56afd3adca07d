// Names, device stacks, drivers and device interfaces.
#include "scripted_driver.h"

#include "cm/configuration_manager.h"
#include "io/object_names.h"

namespace {

using host_test::Bench;
using host_test::Counted;

struct NameCase {
    const char16_t* path;
    bool found;
    const char16_t* rest;
};

TEST(ObjectNames, LeadThroughLinksToDevices)
{
    DEVICE_OBJECT device{};
    host::ObjectNames names;
    EXPECT_EQ(names.AddDevice(u"\\Device\\gps0", &device), STATUS_SUCCESS);
    EXPECT_EQ(names.AddDevice(u"\\device\\GPS0", &device), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(names.AddLink(u"\\DosDevices\\COM5", u"\\Device\\gps0"), STATUS_SUCCESS);
    EXPECT_EQ(names.AddLink(u"\\??\\com5", u"\\Device\\other"), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(names.AddLink(u"\\??\\GPS", u"\\GLOBAL??\\COM5"), STATUS_SUCCESS);
    EXPECT_EQ(names.AddLink(u"\\??\\LOOP", u"\\??\\LOOP"), STATUS_SUCCESS);
    EXPECT_EQ(names.AddLink(u"COM6", u"\\Device\\gps0"), STATUS_OBJECT_PATH_SYNTAX_BAD);
    const NameCase cases[] = {
        {u"\\??\\COM5", true, u""},
        {u"\\??\\GPS", true, u""},
        {u"\\DosDevices\\gps\\File Name", true, u"\\File Name"},
        {u"\\Device\\gps0\\a\\b", true, u"\\a\\b"},
        {u"\\Device\\gps01", false, u""},
        {u"\\??\\COM55", false, u""},
        {u"\\??\\LOOP", false, u""},
        {u"", false, u""},
    };
    LONG opens = 0;
    for (const NameCase& item : cases) {
        const auto found = names.Open(item.path);
        EXPECT_EQ(found.has_value(), item.found);
        EXPECT_TRUE(!found || found->rest == item.rest);
        opens += item.found ? 1 : 0;
        EXPECT_EQ(device.ReferenceCount, opens);
    }
    EXPECT_EQ(names.RemoveLink(u"\\Device\\gps0"), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(names.RemoveLink(u"\\??\\com5"), STATUS_SUCCESS);
    EXPECT_EQ(names.RemoveLink(u"\\??\\com5"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(names.Open(u"\\??\\GPS"));
}

class Machine : public testing::Test {
  protected:
    Bench bench;
};

TEST_F(Machine, MakesADeviceAsItsDriverAsks)
{
    std::u16string name = u"\\Device\\made";
    UNICODE_STRING counted = Counted(name);
    PDEVICE_OBJECT device = nullptr;
    ASSERT_EQ(IoCreateDevice(bench.driver, 100, &counted, FILE_DEVICE_SERIAL_PORT, 0x102, TRUE, &device),
              STATUS_SUCCESS);
    EXPECT_EQ(device->Flags, ULONG{DO_DEVICE_INITIALIZING | DO_EXCLUSIVE});
    EXPECT_EQ(device->DeviceType, ULONG{FILE_DEVICE_SERIAL_PORT});
    EXPECT_EQ(device->Characteristics, 0x102U);
    EXPECT_EQ(device->StackSize, 1);
    const auto* bytes = static_cast<const UCHAR*>(device->DeviceExtension);
    EXPECT_TRUE(std::all_of(bytes, bytes + 100, [](UCHAR byte) { return byte == 0; }));
    EXPECT_EQ(bench.driver->DeviceObject, device);
    PDEVICE_OBJECT second = nullptr;
    EXPECT_EQ(IoCreateDevice(bench.driver, 0, &counted, 0, 0, FALSE, &second), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(second, nullptr);
    // Until it is initialised nobody can open it or attach to it.
    host::nt::File file;
    EXPECT_EQ(host::nt::File::Open("\\Device\\made", &file), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(IoAttachDeviceToDeviceStack(bench.script.device, device), nullptr);
    device->Flags &= ~ULONG{DO_DEVICE_INITIALIZING};
    ASSERT_EQ(host::nt::File::Open("\\Device\\made", &file), STATUS_SUCCESS);
    host::nt::File other;
    EXPECT_EQ(host::nt::File::Open("\\Device\\made", &other), STATUS_ACCESS_DENIED) << "it is exclusive";
    file.Close();
    IoDeleteDevice(device);
    EXPECT_EQ(host::nt::File::Open("\\Device\\made", &file), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(Machine, LoadsADriverUnderItsServicesKey)
{
    EXPECT_EQ(host::IoLoadDriver("scripted", host_test::ScriptedEntry), STATUS_IMAGE_ALREADY_LOADED);
    const auto key = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\scripted";
    EXPECT_TRUE(host::ConfigurationManager::Current().Registry().Open(key));
    EXPECT_EQ(host::IoUnloadDriver("scripted"), STATUS_DEVICE_BUSY) << "it has a device";
    EXPECT_EQ(host::IoUnloadDriver("another"), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(Machine, FailsARequestWithoutARoutine)
{
    bench.driver->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = &host::IopInvalidDeviceRequest;
    const host::nt::File file = bench.Open();
    EXPECT_EQ(file.Flush().status, STATUS_INVALID_DEVICE_REQUEST);
}

} // namespace
