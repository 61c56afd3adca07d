/*
 * Private device controls of the navox GPS port.
 *
 * For applications, in C or C++, with any Windows compiler. Open the port by its COM name and send the codes with
 * DeviceIoControl:
 *
 *     HANDLE port = CreateFileW(L"\\\\.\\COM5", GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING, 0, NULL);
 *     DWORD number = 0, returned = 0;
 *     if (DeviceIoControl(port, IOCTL_GPS_GET_COMM_PORT, NULL, 0, &number, sizeof(number), &returned, NULL))
 *         printf("COM%lu\n", number);
 *
 * Queries take no input and settings take no output: a buffer where none belongs fails the request with
 * ERROR_INVALID_PARAMETER. A buffer that is too small fails it with ERROR_INSUFFICIENT_BUFFER. Queries need a handle
 * opened for reading, settings one opened for writing (ERROR_ACCESS_DENIED otherwise). The codes work while the device
 * is stopped, too.
 *
 * Give IOCTL_GPS_GET_APPLICATION_COUNT, IOCTL_GPS_GET_NMEA_MODE and IOCTL_GPS_SET_NMEA_MODE the right buffers: an error
 * of theirs may look like success that returned nothing.
 *
 * Include <windows.h> and <winioctl.h> first.
 */
#ifndef NAVOX_GPS_IOCTL_H
#define NAVOX_GPS_IOCTL_H

#define GPS_DEVICE_TYPE 0x0800

#define GPS_READ_CODE(function) CTL_CODE(GPS_DEVICE_TYPE, (function), METHOD_BUFFERED, FILE_READ_ACCESS)
#define GPS_WRITE_CODE(function) CTL_CODE(GPS_DEVICE_TYPE, (function), METHOD_BUFFERED, FILE_WRITE_ACCESS)

/* Out: 32-bit unsigned, the number in the port's name: 5 for COM5. */
#define IOCTL_GPS_GET_COMM_PORT GPS_READ_CODE(2)

/* Out: 32-bit unsigned, how many handles are open on the port, the caller's included. */
#define IOCTL_GPS_GET_APPLICATION_COUNT GPS_READ_CODE(3)

/* Out: 32-bit unsigned, the value last set; 0 after the device has arrived. */
#define IOCTL_GPS_GET_NMEA_MODE GPS_READ_CODE(4)

/* In: 32-bit unsigned, any value. It is kept and given back; the stream does not change. */
#define IOCTL_GPS_SET_NMEA_MODE GPS_WRITE_CODE(5)

/* Always succeeds, and resets nothing. Give it no buffers: the count of returned bytes has no meaning. */
#define IOCTL_GPS_RESET_GPS GPS_READ_CODE(6)

/* Out: char[GPS_VERSION_SIZE], "major.minor.build.revision", zero-terminated. */
#define IOCTL_GPS_QUERY_VERSION GPS_READ_CODE(9)
#define GPS_VERSION_SIZE 20

/* Out: char[GPS_SHORT_VERSION_SIZE], "major.minor", zero-terminated. */
#define IOCTL_GPS_QUERY_SHORT_VERSION GPS_READ_CODE(16)
#define GPS_SHORT_VERSION_SIZE 10

/* Out: char[GPS_BUILD_DATE_SIZE], the driver's build date, zero-terminated. */
#define IOCTL_GPS_QUERY_BUILD_DATE GPS_READ_CODE(32)
#define GPS_BUILD_DATE_SIZE 20

/* Reserved; refused with ERROR_INVALID_FUNCTION. */
#define IOCTL_NAVOX_OPERATION                                                                                \
    CTL_CODE(GPS_DEVICE_TYPE, 1, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS)
#define IOCTL_GPS_WRITE_DEBUG_STRING GPS_WRITE_CODE(7)
#define IOCTL_GPS_READ_DEBUG_DATA GPS_READ_CODE(8)
#define IOCTL_GPS_SET_DEBUG_LEVEL GPS_WRITE_CODE(48)

#endif
