// A scripted driver on a fake USB device, with the calls that a function driver makes.
#pragma once

#include "fake_device.h"
#include "scripted_driver.h"

#include "io/pnp_manager.h"
#include "po/power_manager.h"
#include "usbd/usb_bus.h"
#include "usbd/usb_port.h"

#include <memory>
#include <string>
#include <usbdlib.h>
#include <usbioctl.h>
#include <vector>

namespace host_test {

class UsbBench : public Bench {
  public:
    explicit UsbBench(host::KernelOptions options = Recording(), host::UsbPortOptions port_options = {});
    ~UsbBench();

    host::PnpNodePtr Node();
    // Opens the data interface and remembers its pipes.
    void Configure();

    struct Sent {
        NTSTATUS status = 0; // of the request
        USBD_STATUS usbd = 0;
        ULONG length = 0; // of the transfer
        std::vector<UCHAR> data;
    };
    // A URB of the driver on its way.
    struct Flight {
        PIRP irp = nullptr;
        std::unique_ptr<URB> urb;
        std::vector<UCHAR> buffer;
        KEVENT done;
        KIRQL completed_at = HIGH_LEVEL;
        NTSTATUS returned = 0;
        IO_STATUS_BLOCK block{};
    };
    using FlightPtr = std::shared_ptr<Flight>;

    FlightPtr Submit(std::unique_ptr<URB> urb, std::vector<UCHAR> buffer = {});
    Sent Land(const FlightPtr& flight); // waits, frees, reports
    static std::unique_ptr<URB> TransferUrb(USBD_PIPE_HANDLE pipe, std::vector<UCHAR>& buffer, ULONG flags);
    FlightPtr StartIn(std::size_t length, ULONG flags = USBD_SHORT_TRANSFER_OK);
    FlightPtr StartOut(std::string_view data);
    static std::unique_ptr<URB> PipeUrb(USHORT function, USBD_PIPE_HANDLE pipe);
    Sent PipeRequest(USHORT function, USBD_PIPE_HANDLE pipe) { return Land(Submit(PipeUrb(function, pipe))); }

    static void Unplug(const host::UsbPortPtr& which);
    // Another device, or the same one again.
    static host::UsbPortPtr Plug(std::shared_ptr<module::Device> another, host::UsbPortOptions options = {});
    // Something happens to the device, and the bus looks after it.
    void Tell(void (*what)(FakeDevice&))
    {
        port->WithDevice([=](module::Device& it) { what(static_cast<FakeDevice&>(it)); });
    }
    NTSTATUS RequestPower(DEVICE_POWER_STATE state);
    PDEVICE_OBJECT Lower() const { return script.lower; }

    std::shared_ptr<FakeDevice> device = std::make_shared<FakeDevice>();
    host::UsbPortPtr port;
    USBD_PIPE_HANDLE bulk_in = nullptr;
    USBD_PIPE_HANDLE bulk_out = nullptr;
};

} // namespace host_test
