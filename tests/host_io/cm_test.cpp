#include "cm/configuration_manager.h"
#include "cm/reg_file.h"
#include "cm/text.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <wdm/rtl.h>
#include <wdm/zw.h>

namespace {

using host::CmRegistry;
using host::CmValue;

constexpr std::string_view kHead = "Windows Registry Editor Version 5.00\r\n\r\n";
constexpr std::u16string_view kKey = u"\\Registry\\Machine\\A";

std::vector<std::byte> Raw(std::initializer_list<int> values)
{
    std::vector<std::byte> bytes;
    for (int value : values)
        bytes.push_back(static_cast<std::byte>(value));
    return bytes;
}

std::optional<CmValue> Loaded(std::string_view lines, std::u16string_view name)
{
    CmRegistry registry;
    const auto error =
        CmLoadRegText(registry, std::string(kHead) + "[HKEY_LOCAL_MACHINE\\A]\r\n" + std::string(lines));
    EXPECT_FALSE(error) << error->Text();
    const host::CmKeyPtr key = registry.Open(kKey);
    return key ? registry.Value(key, name) : std::nullopt;
}

using ValueCase = std::tuple<const char*, const char16_t*, std::uint32_t, std::vector<std::byte>>;

TEST(RegText, ReadsEveryKindOfValue)
{
    const ValueCase cases[] = {
        {"\"n\"=\"a\\\\b\\\"c\"", u"n", REG_SZ, host::CmStringData(u"a\\b\"c")},
        {"@=\"default\"", u"", REG_SZ, host::CmStringData(u"default")},
        {"\"n\"=dword:0000000a", u"N", REG_DWORD, Raw({10, 0, 0, 0})},
        {"\"n\"=dword:ffffffff", u"n", REG_DWORD, Raw({255, 255, 255, 255})},
        {"\"n\"=hex:01,02,\\\r\n  03", u"n", REG_BINARY, Raw({1, 2, 3})},
        {"\"n\"=hex:", u"n", REG_BINARY, {}},
        {"\"n\"=hex(2):25,00,00,00", u"n", REG_EXPAND_SZ, Raw({0x25, 0, 0, 0})},
        {"\"n\"=hex(7):61,00,00,00,00,00", u"n", REG_MULTI_SZ, Raw({0x61, 0, 0, 0, 0, 0})},
        {"\"n\"=hex(b):1,0,0,0,0,0,0,0", u"n", REG_QWORD, Raw({1, 0, 0, 0, 0, 0, 0, 0})},
        {"; a comment\r\n\r\n  \"n\" = \"x\" ; another", u"n", REG_SZ, host::CmStringData(u"x")},
        {"\"a=b\"=dword:1", u"a=b", REG_DWORD, Raw({1, 0, 0, 0})},
    };
    for (const auto& [line, name, type, data] : cases) {
        const std::optional<CmValue> value = Loaded(line, name);
        ASSERT_TRUE(value) << line;
        EXPECT_EQ(value->type, type) << line;
        EXPECT_EQ(value->data, data) << line;
    }
}

using ErrorCase = std::tuple<std::string, std::size_t, const char*>;

TEST(RegText, NamesTheLineOfAnErrorAndChangesNothing)
{
    const std::string head(kHead);
    const ErrorCase cases[] = {
        {"", 1, "empty"},
        {"REGEDIT4\r\n", 1, "Version 5.00"},
        {head + "\"a\"=dword:1\r\n", 3, "before the first key"},
        {head + "[HKLM\\B]\r\n\"a\"=dword:123456789\r\n", 4, "one to eight"},
        {head + "[HKLM\\B]\r\n\"a\"=dword:xyz\r\n", 4, "one to eight"},
        {head + "[HKLM\\B]\r\n\"a\"=\"open\r\n", 4, "closing"},
        {head + "[HKLM\\B]\r\n\"a\"=\"x\"y\r\n", 4, "after the closing"},
        {head + "[HKLM\\B]\r\n\"a\"=hex:1,zz\r\n", 4, "two hexadecimal digits"},
        {head + "[HKLM\\B]\r\n\"a\"=hex:01,\\\r\n  2,100\r\n", 5, "two hexadecimal digits"},
        {head + "[HKLM\\B]\r\n\"a\"=hex:01,\\", 4, "continued line"},
        {head + "[HKLM\\B]\r\n\"a\"=hex(q):01\r\n", 4, "bad type"},
        {head + "[HKLM\\B]\r\n\"a\"=what:1\r\n", 4, "unknown kind"},
        {head + "[HKLM\\B]\r\n\"a\"\r\n", 4, "expected '='"},
        {head + "[HKLM\\B]\r\nnonsense\r\n", 4, "expected a key"},
        {head + "[HKLM\\B\r\n", 3, "']'"},
        {head + "[HKEY_NOWHERE\\B]\r\n", 3, "unknown root"},
        {head + "[-HKLM]\r\n", 3, "root key"},
        {head + "[-HKLM\\B]\r\n\"a\"=dword:1\r\n", 4, "deleted key"},
        {head + "[HKLM\\B]\r\n\"\xFF\"=dword:1\r\n", 4, "UTF-8"},
        {"\xFF\xFE\x41", 0, "cut off"},
    };
    for (const auto& [text, line, says] : cases) {
        CmRegistry registry;
        const auto error = CmLoadRegText(registry, text);
        ASSERT_TRUE(error) << text;
        EXPECT_EQ(error->line, line) << text << error->Text();
        EXPECT_NE(error->message.find(says), std::string::npos) << error->Text();
        EXPECT_FALSE(registry.Open(u"\\Registry\\Machine\\B"));
        EXPECT_TRUE(registry.Writes().empty());
    }
}

TEST(RegText, DeletesValuesAndKeys)
{
    CmRegistry registry;
    registry.SetDword(u"\\Registry\\Machine\\A", u"gone", 1);
    registry.SetDword(u"\\Registry\\Machine\\A\\Sub\\Deep", u"x", 1);
    const auto error = CmLoadRegText(
        registry,
        std::string(kHead) + "[HKLM\\a]\n\"GONE\"=-\n\"none\"=-\n[-HKLM\\A\\sub]\n[-HKLM\\NotThere]\n");
    EXPECT_FALSE(error);
    EXPECT_FALSE(registry.Dword(kKey, u"gone"));
    EXPECT_FALSE(registry.Open(u"\\Registry\\Machine\\A\\Sub"));
    EXPECT_TRUE(registry.Open(kKey));
}

TEST(RegText, WhatIsSavedLoadsAgain)
{
    CmRegistry from;
    const host::CmKeyPtr key = from.Create(u"\\Registry\\Machine\\A\\B \u00e4");
    from.SetString(kKey, u"", u"default");
    from.SetString(kKey, u"a \"quoted\" \\ name", u"value with \u20ac and \U0001F6F0");
    from.SetDword(kKey, u"dword", 0xDEADBEEF);
    from.SetValue(from.Open(kKey), u"lines", REG_SZ, host::CmStringData(u"one\r\ntwo"));
    from.SetValue(from.Open(kKey), u"unterminated", REG_SZ, Raw({0x41, 0}));
    from.SetValue(key, u"long", REG_BINARY, std::vector<std::byte>(100, std::byte{0xAB}));
    from.SetValue(key, u"multi", REG_MULTI_SZ, Raw({0x61, 0, 0, 0, 0, 0}));
    for (const auto encoding : {host::CmRegEncoding::Utf16, host::CmRegEncoding::Utf8}) {
        const std::string text = CmSaveRegText(from, kKey, encoding);
        CmRegistry to;
        const auto error = CmLoadRegText(to, text);
        ASSERT_FALSE(error) << error->Text();
        EXPECT_EQ(CmSaveRegText(to, kKey, encoding), text);
        for (const auto* path : {u"\\Registry\\Machine\\A", u"\\Registry\\Machine\\A\\B \u00e4"}) {
            ASSERT_TRUE(to.Open(path));
            for (const CmValue& value : from.Values(from.Open(path))) {
                const auto again = to.Value(to.Open(path), value.name);
                ASSERT_TRUE(again) << host::ToUtf8(value.name);
                EXPECT_EQ(again->type, value.type);
                EXPECT_EQ(again->data, value.data);
            }
        }
    }
}

// The routines that drivers call.
class KeyTest : public testing::Test {
  protected:
    static UNICODE_STRING Str(const WCHAR* text)
    {
        UNICODE_STRING string{};
        RtlInitUnicodeString(&string, text);
        return string;
    }

    HANDLE Open(const WCHAR* path)
    {
        UNICODE_STRING name = Str(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                                   nullptr);
        HANDLE key = nullptr;
        EXPECT_EQ(ZwOpenKey(&key, KEY_READ, &attributes), STATUS_SUCCESS);
        return key;
    }

    static host::KernelOptions Recording()
    {
        host::KernelOptions options;
        options.policy = host::Policy::Record;
        return options;
    }

    host::Kernel kernel{Recording()};
    CmRegistry& registry = host::ConfigurationManager::Current().Registry();
};

struct QueryCase {
    KEY_VALUE_INFORMATION_CLASS information;
    ULONG room;
    NTSTATUS status;
    ULONG needed;
};

TEST_F(KeyTest, QueryFitsItsAnswerIntoTheBuffer)
{
    registry.SetDword(kKey, u"Odd", 0x01020304); // a name of six bytes: its data begin at a whole ULONG
    const HANDLE key = Open(L"\\Registry\\Machine\\A");
    UNICODE_STRING name = Str(L"odd");
    const QueryCase cases[] = {
        {KeyValueFullInformation, 64, STATUS_SUCCESS, 32},
        {KeyValueFullInformation, 32, STATUS_SUCCESS, 32},
        {KeyValueFullInformation, 31, STATUS_BUFFER_OVERFLOW, 32},
        {KeyValueFullInformation, 19, STATUS_BUFFER_TOO_SMALL, 32},
        {KeyValuePartialInformation, 16, STATUS_SUCCESS, 16},
        {KeyValuePartialInformation, 15, STATUS_BUFFER_OVERFLOW, 16},
        {KeyValuePartialInformation, 11, STATUS_BUFFER_TOO_SMALL, 16},
        {KeyValueBasicInformation, 18, STATUS_SUCCESS, 18},
        {KeyValueBasicInformation, 17, STATUS_BUFFER_OVERFLOW, 18},
    };
    for (const QueryCase& item : cases) {
        std::array<UCHAR, 64> buffer{};
        ULONG needed = 0;
        EXPECT_EQ(ZwQueryValueKey(key, &name, item.information, buffer.data(), item.room, &needed),
                  item.status);
        EXPECT_EQ(needed, item.needed);
        if (item.status == STATUS_SUCCESS && item.information == KeyValueFullInformation) {
            const auto* full = reinterpret_cast<const KEY_VALUE_FULL_INFORMATION*>(buffer.data());
            ULONG value = 0;
            std::memcpy(&value, buffer.data() + full->DataOffset, sizeof value);
            EXPECT_EQ(full->DataOffset, 28U);
            EXPECT_EQ(full->DataLength, 4U);
            EXPECT_EQ(value, 0x01020304U);
        }
    }
    name = Str(L"none");
    std::array<UCHAR, 64> buffer{};
    ULONG needed = 0;
    EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValueFullInformation, buffer.data(), 64, &needed),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(KeyTest, CreateMakesOnlyTheLastKey)
{
    UNICODE_STRING name = Str(L"\\Registry\\Machine\\New\\Deep");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE key = nullptr;
    EXPECT_EQ(ZwCreateKey(&key, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr),
              STATUS_OBJECT_NAME_NOT_FOUND);
    name = Str(L"\\Registry\\Machine\\New");
    ULONG disposition = 0;
    EXPECT_EQ(ZwCreateKey(&key, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, &disposition), STATUS_SUCCESS);
    EXPECT_EQ(disposition, ULONG{REG_CREATED_NEW_KEY});
    // Relative to a handle.
    HANDLE deep = nullptr;
    name = Str(L"Deep");
    InitializeObjectAttributes(&attributes, &name, 0, key, nullptr);
    EXPECT_EQ(ZwOpenKey(&deep, KEY_READ, &attributes), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(ZwCreateKey(&deep, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, &disposition), STATUS_SUCCESS);
    EXPECT_TRUE(registry.Open(u"\\Registry\\Machine\\New\\Deep"));
    EXPECT_EQ(ZwClose(deep), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    EXPECT_TRUE(kernel.GetVerifier().Clean());
}

TEST_F(KeyTest, HandlesAreChecked)
{
    registry.Create(kKey);
    const HANDLE key = Open(L"\\Registry\\Machine\\A");
    UNICODE_STRING name = Str(L"x");
    ULONG value = 1;
    EXPECT_EQ(ZwSetValueKey(key, &name, 0, REG_DWORD, &value, sizeof value), STATUS_SUCCESS);
    registry.DeleteTree(registry.Open(kKey));
    EXPECT_EQ(ZwSetValueKey(key, &name, 0, REG_DWORD, &value, sizeof value), STATUS_KEY_DELETED);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    EXPECT_TRUE(kernel.GetVerifier().Clean());
    EXPECT_EQ(ZwClose(key), STATUS_INVALID_HANDLE);
    EXPECT_EQ(kernel.GetVerifier().Count(host::Rule::HandleInvalid), 1U);
}

} // namespace
