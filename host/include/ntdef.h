// Basic types of the platform: 64-bit pointers, 32-bit LONG, 16-bit WCHAR.
#pragma once

#include <cstddef>
#include <cstdint>
#include <guiddef.h>
#include <sal.h>

#define NTAPI __attribute__((ms_abi))
#define FASTCALL NTAPI
#define NTKERNELAPI
#define NTSYSAPI
#define NTHALAPI
#define DECLSPEC_IMPORT
#define DECLSPEC_NORETURN __attribute__((noreturn))
#define DECLSPEC_ALIGN(bytes) __attribute__((aligned(bytes)))
#define DECLSPEC_SELECTANY __attribute__((weak))
#define POINTER_ALIGNMENT DECLSPEC_ALIGN(8)
#define FORCEINLINE inline __attribute__((always_inline))
#define EXTERN_C extern "C"
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }

#define VOID void
#define CONST const
#define TRUE 1
#define FALSE 0
#define ANYSIZE_ARRAY 1
#define MAXUSHORT 0xffff
#define MAXULONG 0xffffffffU
#define MAXLONG 0x7fffffff
#define MINLONG (-0x7fffffff - 1)
#define MAXLONGLONG 0x7fffffffffffffffLL
#define MAXULONGLONG 0xffffffffffffffffULL

typedef char CHAR, CCHAR;
typedef short SHORT, CSHORT;
typedef int LONG, INT;
typedef unsigned char UCHAR, BOOLEAN, BYTE;
typedef unsigned short USHORT;
typedef unsigned int ULONG, UINT;
typedef long long LONGLONG, LONG64, LONG_PTR, INT_PTR, SSIZE_T;
typedef unsigned long long ULONGLONG, ULONG64, DWORDLONG, ULONG_PTR, UINT_PTR, SIZE_T;
typedef signed char INT8;
typedef short INT16;
typedef int INT32, LONG32;
typedef long long INT64;
typedef unsigned char UINT8;
typedef unsigned short UINT16;
typedef unsigned int UINT32, ULONG32;
typedef unsigned long long UINT64;
typedef wchar_t WCHAR;
static_assert(sizeof(WCHAR) == 2, "compile with -fshort-wchar: the platform's characters are 16 bits");

typedef void* PVOID;
typedef const void* PCVOID;
typedef CHAR *PCHAR, *PSTR, *PCCHAR;
typedef const CHAR *PCSTR, *PCSZ, *LPCSTR;
typedef SHORT* PSHORT;
typedef LONG* PLONG;
typedef UCHAR* PUCHAR;
typedef const UCHAR* PCUCHAR;
typedef BOOLEAN* PBOOLEAN;
typedef USHORT* PUSHORT;
typedef ULONG* PULONG;
typedef LONGLONG* PLONGLONG;
typedef ULONGLONG *PULONGLONG, *PULONG64;
typedef ULONG_PTR* PULONG_PTR;
typedef SIZE_T* PSIZE_T;
typedef WCHAR *PWCHAR, *PWCH, *PWSTR, *LPWSTR, *NTSTRSAFE_PWSTR;
typedef const WCHAR *PCWCH, *PCWSTR, *LPCWSTR;
typedef PVOID HANDLE;
typedef HANDLE* PHANDLE;
typedef UCHAR KIRQL;
typedef KIRQL* PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef ULONG LOGICAL;
typedef ULONG DEVICE_TYPE;
typedef ULONG_PTR KAFFINITY;
typedef LONG KPRIORITY;

typedef LONG NTSTATUS;
typedef NTSTATUS* PNTSTATUS;
#define NT_SUCCESS(status) ((NTSTATUS)(status) >= 0)
#define NT_INFORMATION(status) (((ULONG)(status) >> 30) == 1)
#define NT_WARNING(status) (((ULONG)(status) >> 30) == 2)
#define NT_ERROR(status) (((ULONG)(status) >> 30) == 3)

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef LARGE_INTEGER PHYSICAL_ADDRESS, *PPHYSICAL_ADDRESS;
typedef struct _LUID {
    ULONG LowPart;
    LONG HighPart;
} LUID, *PLUID;

// Counted strings: lengths are in bytes, and the terminator is not counted.
typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWSTR Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING;
typedef const STRING *PCSTRING, *PCANSI_STRING;

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_INHERIT 0x00000002
#define OBJ_PERMANENT 0x00000010
#define OBJ_EXCLUSIVE 0x00000020
#define OBJ_CASE_INSENSITIVE 0x00000040
#define OBJ_OPENIF 0x00000080
#define OBJ_KERNEL_HANDLE 0x00000200

inline void InitializeObjectAttributes(POBJECT_ATTRIBUTES attributes, PUNICODE_STRING name, ULONG flags,
                                       HANDLE root, PVOID securityDescriptor)
{
    *attributes = {sizeof(OBJECT_ATTRIBUTES), root, name, flags, securityDescriptor, nullptr};
}

#define UNICODE_NULL ((WCHAR)0)
#define ANSI_NULL ((CHAR)0)
#define RTL_CONSTANT_STRING(text)                                                                            \
    {                                                                                                        \
        sizeof(text) - sizeof((text)[0]), sizeof(text), const_cast<PWSTR>(text)                              \
    }
#define DECLARE_CONST_UNICODE_STRING(name, text)                                                             \
    const WCHAR name##_buffer[] = text;                                                                      \
    const UNICODE_STRING name = RTL_CONSTANT_STRING(name##_buffer)

#define CONTAINING_RECORD(address, type, field)                                                              \
    (reinterpret_cast<type*>(reinterpret_cast<char*>(address) - offsetof(type, field)))
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)nullptr)->field))
#define RTL_SIZEOF_THROUGH_FIELD(type, field) (offsetof(type, field) + RTL_FIELD_SIZE(type, field))
#define RTL_NUMBER_OF(array) (sizeof(array) / sizeof((array)[0]))
#define ARRAYSIZE(array) RTL_NUMBER_OF(array)
#define C_ASSERT(expr) static_assert(expr, #expr)
#define UNREFERENCED_PARAMETER(name) ((void)(name))
#define DBG_UNREFERENCED_PARAMETER(name) ((void)(name))
#define ALIGN_UP_BY(length, alignment) (((ULONG_PTR)(length) + (alignment)-1) & ~((ULONG_PTR)(alignment)-1))
#define ALIGN_DOWN_BY(length, alignment) ((ULONG_PTR)(length) & ~((ULONG_PTR)(alignment)-1))
#define HandleToULong(handle) ((ULONG)(ULONG_PTR)(handle))
#define ULongToPtr(value) ((PVOID)(ULONG_PTR)(value))
#define PtrToUlong(pointer) ((ULONG)(ULONG_PTR)(pointer))

#define DELETE 0x00010000
#define READ_CONTROL 0x00020000
#define SYNCHRONIZE 0x00100000
#define STANDARD_RIGHTS_REQUIRED 0x000f0000
#define STANDARD_RIGHTS_READ READ_CONTROL
#define STANDARD_RIGHTS_WRITE READ_CONTROL
#define STANDARD_RIGHTS_ALL 0x001f0000
#define MAXIMUM_ALLOWED 0x02000000
#define GENERIC_READ 0x80000000U
#define GENERIC_WRITE 0x40000000
#define GENERIC_EXECUTE 0x20000000
#define GENERIC_ALL 0x10000000
