// WMI: registration, WMILIB, and the client.
#include "usb_bench.h"

#include "wmi/wmi_manager.h"

#include <cstring>
#include <wmilib.h>

namespace {

using host::WmiAnswer;
using host::WmiManager;
using host_test::UsbBench;

constexpr GUID kNumber = {1, 0, 0, {0, 0, 0, 0, 0, 0, 0, 1}};
constexpr GUID kPair = {2, 0, 0, {0, 0, 0, 0, 0, 0, 0, 2}};
constexpr GUID kNobody = {3, 0, 0, {0, 0, 0, 0, 0, 0, 0, 3}};

// A provider of two blocks: one number, and two instances of different lengths. The number can be set.
class Provider : public UsbBench {
  public:
    Provider()
    {
        self = this;
        OnRequest(IRP_MJ_SYSTEM_CONTROL, [this](PDEVICE_OBJECT object, PIRP irp) {
            SYSCTL_IRP_DISPOSITION disposition = IrpProcessed;
            const NTSTATUS status = WmiSystemControl(&context, object, irp, &disposition);
            dispositions.push_back(disposition);
            if (disposition == IrpProcessed)
                return status;
            if (disposition == IrpNotCompleted) {
                IoCompleteRequest(irp, IO_NO_INCREMENT);
                return status;
            }
            return host_test::PassDown(object, irp);
        });
        EXPECT_EQ(IoWMIRegistrationControl(script.device, WMIREG_ACTION_REGISTER), STATUS_SUCCESS);
    }
    ~Provider()
    {
        EXPECT_EQ(IoWMIRegistrationControl(script.device, WMIREG_ACTION_DEREGISTER), STATUS_SUCCESS);
    }

    static NTSTATUS NTAPI RegInfo(PDEVICE_OBJECT, PULONG flags, PUNICODE_STRING, PUNICODE_STRING* path,
                                  PUNICODE_STRING, PDEVICE_OBJECT* pdo)
    {
        *flags = WMIREG_FLAG_INSTANCE_PDO;
        *path = &self->registry_path;
        *pdo = self->Lower();
        return STATUS_SUCCESS;
    }
    static NTSTATUS NTAPI Query(PDEVICE_OBJECT device, PIRP irp, ULONG index, ULONG instance, ULONG count,
                                PULONG lengths, ULONG room, PUCHAR buffer)
    {
        // Instance n of the pair is n + 3 bytes of 'a' + n; in an all-data answer each begins at 8 bytes.
        if (index == 0) {
            if (room < sizeof(ULONG))
                return WmiCompleteRequest(device, irp, STATUS_BUFFER_TOO_SMALL, sizeof(ULONG),
                                          IO_NO_INCREMENT);
            std::memcpy(buffer, &self->number, sizeof(ULONG));
            *lengths = sizeof(ULONG);
            return WmiCompleteRequest(device, irp, STATUS_SUCCESS, sizeof(ULONG), IO_NO_INCREMENT);
        }
        const ULONG used = count == 2 ? 12 : instance + 3;
        if (room < used)
            return WmiCompleteRequest(device, irp, STATUS_BUFFER_TOO_SMALL, used, IO_NO_INCREMENT);
        for (ULONG i = 0; i < count; ++i) {
            lengths[i] = instance + i + 3;
            std::memset(buffer + static_cast<std::size_t>(8) * i, 'a' + static_cast<int>(instance + i),
                        lengths[i]);
        }
        return WmiCompleteRequest(device, irp, STATUS_SUCCESS, used, IO_NO_INCREMENT);
    }
    static NTSTATUS NTAPI Set(PDEVICE_OBJECT device, PIRP irp, ULONG index, ULONG, ULONG size, PUCHAR buffer)
    {
        if (index != 0 || size != sizeof(ULONG))
            return WmiCompleteRequest(device, irp, STATUS_WMI_SET_FAILURE, 0, IO_NO_INCREMENT);
        std::memcpy(&self->number, buffer, sizeof(ULONG));
        return WmiCompleteRequest(device, irp, STATUS_SUCCESS, 0, IO_NO_INCREMENT);
    }

    static inline Provider* self = nullptr;
    ULONG number = 42;
    std::u16string path_text = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\scripted";
    UNICODE_STRING registry_path = host_test::Counted(path_text);
    WMIGUIDREGINFO guids[2] = {{&kNumber, 1, 0}, {&kPair, 2, 0}};
    WMILIB_CONTEXT context{2, guids, RegInfo, Query, Set, nullptr, nullptr, nullptr};
    std::vector<SYSCTL_IRP_DISPOSITION> dispositions;
};

std::string TextOf(const std::vector<std::byte>& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class Wmi : public testing::Test {
  protected:
    Provider bench;
};

TEST_F(Wmi, BlocksAreRegisteredUnderTheDevicesName)
{
    const auto blocks = WmiManager::Current().Blocks();
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_EQ(blocks[0].guid, kNumber);
    EXPECT_EQ(blocks[1].instances, 2U);
    EXPECT_EQ(blocks[1].base_name, "USB\\VID_1234&PID_5678\\6&1");
    EXPECT_EQ(blocks[1].device, bench.script.device);
    EXPECT_EQ(IoWMIRegistrationControl(bench.script.device, WMIREG_ACTION_REGISTER),
              STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(IoWMIRegistrationControl(bench.Lower(), WMIREG_ACTION_DEREGISTER), STATUS_INVALID_PARAMETER);
}

TEST_F(Wmi, QueriesAnswerWholeOrSayHowMuchRoomTheyNeed)
{
    WmiManager& wmi = WmiManager::Current();
    const WmiAnswer all = wmi.QueryAllData(kPair).at(0);
    EXPECT_EQ(all.status, STATUS_SUCCESS);
    ASSERT_EQ(all.instances.size(), 2U);
    EXPECT_EQ(TextOf(all.instances[0]), "aaa");
    EXPECT_EQ(TextOf(all.instances[1]), "bbbb");
    const WmiAnswer single = wmi.QuerySingleInstance(kPair, 1);
    ASSERT_EQ(single.instances.size(), 1U);
    EXPECT_EQ(TextOf(single.instances[0]), "bbbb");
    // The room that a too-small answer names is enough, and no more than enough.
    for (const GUID& guid : {kNumber, kPair}) {
        const WmiAnswer small = wmi.QuerySingleInstance(guid, 0, 1);
        EXPECT_EQ(small.status, STATUS_SUCCESS);
        EXPECT_TRUE(small.too_small);
        EXPECT_TRUE(wmi.QuerySingleInstance(guid, 0, small.needed - 1).too_small);
        EXPECT_FALSE(wmi.QuerySingleInstance(guid, 0, small.needed).too_small);
        const WmiAnswer small_all = wmi.QueryAllData(guid, 80).at(0);
        EXPECT_EQ(small_all.too_small, guid == kPair);
        if (small_all.too_small)
            EXPECT_FALSE(wmi.QueryAllData(guid, small_all.needed).at(0).too_small);
    }
}

TEST_F(Wmi, EachDeviceThatHasABlockIsAsked)
{
    WmiManager& wmi = WmiManager::Current();
    PDEVICE_OBJECT first = bench.script.device;
    UsbBench::Plug(std::make_shared<host_test::FakeDevice>(), {.instance_id = "other"});
    PDEVICE_OBJECT second = bench.script.device;
    ASSERT_EQ(IoWMIRegistrationControl(second, WMIREG_ACTION_REGISTER), STATUS_SUCCESS);
    const auto answers = wmi.QueryAllData(kPair);
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].device, first);
    EXPECT_EQ(answers[1].device, second);
    EXPECT_EQ(answers[1].instances.size(), 2U);
    EXPECT_EQ(wmi.QuerySingleInstance(kPair, 1).device, first);
    EXPECT_EQ(wmi.QuerySingleInstance(kPair, 1, 4096, second).device, second);
    ASSERT_EQ(IoWMIRegistrationControl(second, WMIREG_ACTION_DEREGISTER), STATUS_SUCCESS);
    EXPECT_EQ(wmi.QueryAllData(kPair).size(), 1U);
    bench.script.device = first;
}

TEST_F(Wmi, WhatCannotBeDoneIsRefused)
{
    WmiManager& wmi = WmiManager::Current();
    PDEVICE_OBJECT device = bench.script.device;
    const auto text = host_test::Bytes("x"); // no number
    EXPECT_TRUE(wmi.QueryAllData(kNobody).empty());
    EXPECT_EQ(wmi.Send(device, IRP_MN_QUERY_ALL_DATA, kNobody), STATUS_WMI_GUID_NOT_FOUND);
    EXPECT_EQ(wmi.QuerySingleInstance(kPair, 2).status, STATUS_WMI_INSTANCE_NOT_FOUND);
    EXPECT_EQ(wmi.SetSingleInstance(kNumber, 0, text), STATUS_WMI_SET_FAILURE);
    // Without a routine.
    EXPECT_EQ(wmi.SetSingleItem(kNumber, 0, 1, text), STATUS_WMI_READ_ONLY);
    EXPECT_EQ(wmi.Send(device, IRP_MN_EXECUTE_METHOD, kNumber), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(wmi.Send(device, IRP_MN_ENABLE_EVENTS, kNumber), STATUS_SUCCESS);
    EXPECT_EQ(bench.number, 42U);
    const ULONG value = 77;
    EXPECT_EQ(wmi.SetSingleInstance(kNumber, 0, host::nt::BytesOf(value)), STATUS_SUCCESS);
    EXPECT_EQ(bench.number, 77U);
    EXPECT_EQ(bench.dispositions.back(), IrpProcessed);
}

TEST_F(Wmi, RequestsOfOtherDevicesArePassedOn)
{
    bench.kernel.RunUntilIdle();
    const IO_STATUS_BLOCK block =
        host::IopSendAndWait(bench.script.device, IRP_MJ_SYSTEM_CONTROL, IRP_MN_QUERY_ALL_DATA,
                             STATUS_NOT_SUPPORTED, [&](PIRP, PIO_STACK_LOCATION location) {
                                 location->Parameters.WMI.ProviderId =
                                     reinterpret_cast<ULONG_PTR>(bench.Lower());
                             });
    EXPECT_EQ(block.Status, STATUS_NOT_SUPPORTED);
    EXPECT_EQ(bench.dispositions.back(), IrpForward);
}

TEST(WmiTables, DeregisteringWaitsForRequestsUnderWay)
{
    UsbBench bench;
    PDEVICE_OBJECT device = bench.script.device;
    bool answered = false;
    bench.OnRequest(IRP_MJ_SYSTEM_CONTROL, [&](PDEVICE_OBJECT, PIRP irp) {
        bench.kernel.RunFor(host::kSecond);
        answered = true;
        return host_test::Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    });
    EXPECT_EQ(IoWMIRegistrationControl(device, WMIREG_ACTION_REGISTER), STATUS_SUCCESS);
    bench.kernel.RunFor(host::kMillisecond);
    EXPECT_FALSE(answered);
    EXPECT_EQ(IoWMIRegistrationControl(device, WMIREG_ACTION_DEREGISTER), STATUS_SUCCESS);
    EXPECT_TRUE(answered);
    EXPECT_TRUE(WmiManager::Current().Blocks().empty());
}

} // namespace
