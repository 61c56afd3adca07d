#include "cm/reg_file.h"

#include "cm/text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <system_error>
#include <utility>
#include <variant>

namespace host {
namespace {

constexpr std::u16string_view kHeader = u"Windows Registry Editor Version 5.00";
constexpr std::u16string_view kByteOrderMark = u"\uFEFF";
constexpr std::size_t kMaxLineWidth = 80;

// As the platform has it.
constexpr std::size_t kDeepestKey = 512;     // levels, with the root
constexpr std::size_t kLongestKeyName = 255; // characters
constexpr std::size_t kLongestValueName = 16'383;

struct RootName {
    std::u16string_view file;
    std::u16string_view native;
};

constexpr std::array kRoots = {
    RootName{u"HKEY_LOCAL_MACHINE", u"\\Registry\\Machine"},
    RootName{u"HKLM", u"\\Registry\\Machine"},
    RootName{u"HKEY_USERS", u"\\Registry\\User"},
    RootName{u"HKU", u"\\Registry\\User"},
};

std::optional<std::u16string> NativePath(std::u16string_view path)
{
    std::u16string_view root = path.substr(0, path.find(u'\\'));
    for (const RootName& name : kRoots) {
        if (SameName(name.file, root)) {
            return std::u16string(name.native) + std::u16string(path.substr(root.size()));
        }
    }
    return std::nullopt;
}

std::optional<std::u16string> FilePath(std::u16string_view path)
{
    for (const RootName& name : kRoots) {
        std::u16string_view head = path.substr(0, name.native.size());
        bool whole = path.size() == head.size() || path[head.size()] == u'\\';
        if (whole && SameName(head, name.native)) {
            return std::u16string(name.file) + std::u16string(path.substr(head.size()));
        }
    }
    return std::nullopt;
}

std::u16string_view Trim(std::u16string_view text)
{
    constexpr std::u16string_view kBlank = u" \t\r";
    std::size_t begin = text.find_first_not_of(kBlank);
    if (begin == text.npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(kBlank) - begin + 1);
}

// What one line of a file asks for.
struct Operation {
    enum class Kind { CreateKey, DeleteKey, SetValue, DeleteValue };
    Kind kind;
    std::u16string key;
    CmValue value;
};

std::optional<CmRegError> DecodeUtf8(std::string_view bytes, std::u16string& text)
{
    std::size_t line = 1;
    while (!bytes.empty()) {
        std::string_view head = bytes.substr(0, bytes.find('\n') + 1);
        head = head.empty() ? bytes : head;
        std::optional<std::u16string> decoded = FromUtf8(head);
        if (!decoded) {
            return CmRegError{line, "not UTF-8 (and the file does not begin as UTF-16LE)"};
        }
        text += *decoded;
        bytes.remove_prefix(head.size());
        ++line;
    }
    return std::nullopt;
}

std::optional<CmRegError> Decode(std::string_view bytes, std::u16string& text)
{
    if (bytes.starts_with("\xFF\xFE")) {
        if (bytes.size() % 2 != 0) {
            return CmRegError{0, "the file is cut off: UTF-16LE text has an even number of bytes"};
        }
        for (std::size_t i = 2; i < bytes.size(); i += 2) {
            auto low = static_cast<unsigned char>(bytes[i]);
            auto high = static_cast<unsigned char>(bytes[i + 1]);
            text += static_cast<char16_t>(low | (high << 8));
        }
        return std::nullopt;
    }
    if (bytes.starts_with("\xEF\xBB\xBF")) {
        bytes.remove_prefix(3);
    }
    return DecodeUtf8(bytes, text);
}

class Parser {
  public:
    explicit Parser(std::u16string_view text) : rest_(text) {}

    std::variant<std::vector<Operation>, CmRegError> Run();

  private:
    bool NextLine();
    bool ParseHeader();
    bool ParseLine();
    bool ParseKey();
    bool CheckKey(std::u16string_view path);
    bool ParseValue();
    bool ParseData(std::u16string_view data, CmValue& value);
    bool ParseString(std::u16string_view data, CmValue& value);
    bool ParseDword(std::u16string_view digits, CmValue& value);
    bool ParseHexType(std::u16string_view& data, CmValue& value);
    bool ParseHex(std::u16string_view data, CmValue& value);
    bool JoinContinuation(std::u16string& data);
    // Reads a quoted text at the start of `data` and takes it off.
    std::optional<std::u16string> Quoted(std::u16string_view& data);

    bool Fail(std::string message)
    {
        if (!error_) {
            error_ = CmRegError{lineNumber_, std::move(message)};
        }
        return false;
    }

    std::u16string_view rest_;
    std::u16string_view line_;
    std::size_t lineNumber_ = 0;
    std::u16string key_;
    bool keyDeleted_ = false;
    std::vector<Operation> operations_;
    std::optional<CmRegError> error_;
};

bool Parser::NextLine()
{
    if (rest_.empty()) {
        return false;
    }
    std::size_t end = rest_.find(u'\n');
    line_ = Trim(rest_.substr(0, end));
    rest_.remove_prefix(end == rest_.npos ? rest_.size() : end + 1);
    ++lineNumber_;
    return true;
}

bool Parser::ParseHeader()
{
    do {
        if (!NextLine()) {
            lineNumber_ = 1;
            return Fail("the file is empty: the first line must be \"" + ToUtf8(kHeader) + "\"");
        }
    } while (line_.empty());
    if (!SameName(line_, kHeader)) {
        return Fail("the first line must be \"" + ToUtf8(kHeader) + "\"");
    }
    return true;
}

bool Parser::ParseLine()
{
    if (line_.empty() || line_[0] == u';') {
        return true;
    }
    return line_[0] == u'[' ? ParseKey() : ParseValue();
}

bool Parser::CheckKey(std::u16string_view path)
{
    for (std::size_t level = 1; !path.empty(); ++level) {
        const std::u16string_view name = path.substr(0, path.find(u'\\'));
        path.remove_prefix(std::min(name.size() + 1, path.size()));
        if (level > kDeepestKey)
            return Fail("a key has at most " + std::to_string(kDeepestKey) + " levels");
        if (name.size() > kLongestKeyName)
            return Fail("the name of a key has at most " + std::to_string(kLongestKeyName) + " characters");
    }
    return true;
}

bool Parser::ParseKey()
{
    if (line_.back() != u']') {
        return Fail("a key must end with ']'");
    }
    std::u16string_view path = line_.substr(1, line_.size() - 2);
    keyDeleted_ = path.starts_with(u'-');
    if (keyDeleted_) {
        path.remove_prefix(1);
    }
    std::optional<std::u16string> native = NativePath(path);
    if (!native) {
        return Fail("unknown root key in \"" + ToUtf8(path) +
                    "\" (HKEY_LOCAL_MACHINE and HKEY_USERS are known)");
    }
    if (keyDeleted_ && path.find(u'\\') == path.npos) {
        return Fail("a root key cannot be deleted");
    }
    if (!CheckKey(path))
        return false;
    key_ = *native;
    auto kind = keyDeleted_ ? Operation::Kind::DeleteKey : Operation::Kind::CreateKey;
    operations_.push_back({kind, key_, {}});
    return true;
}

std::optional<std::u16string> Parser::Quoted(std::u16string_view& data)
{
    std::u16string text;
    for (std::size_t i = 1; i < data.size(); ++i) {
        if (data[i] == u'"') {
            data.remove_prefix(i + 1);
            return text;
        }
        if (data[i] == u'\\' && ++i == data.size()) {
            break;
        }
        text += data[i];
    }
    Fail("the closing '\"' is missing");
    return std::nullopt;
}

bool Parser::ParseValue()
{
    if (key_.empty()) {
        return Fail("a value stands before the first key");
    }
    if (keyDeleted_) {
        return Fail("a value stands under a deleted key");
    }
    Operation operation{Operation::Kind::SetValue, key_, {}};
    std::u16string_view data = line_;
    if (data[0] == u'@') {
        data.remove_prefix(1);
    } else if (data[0] == u'"') {
        std::optional<std::u16string> name = Quoted(data);
        if (!name) {
            return false;
        }
        if (name->size() > kLongestValueName)
            return Fail("the name of a value has at most " + std::to_string(kLongestValueName) +
                        " characters");
        operation.value.name = std::move(*name);
    } else {
        return Fail("expected a key, a value, or a comment");
    }
    data = Trim(data);
    if (!data.starts_with(u'=')) {
        return Fail("expected '=' after the name of the value");
    }
    data = Trim(data.substr(1));
    if (data == u"-") {
        operation.kind = Operation::Kind::DeleteValue;
    } else if (!ParseData(data, operation.value)) {
        return false;
    }
    operations_.push_back(std::move(operation));
    return true;
}

bool Parser::ParseData(std::u16string_view data, CmValue& value)
{
    if (data.starts_with(u'"')) {
        return ParseString(data, value);
    }
    std::size_t colon = data.find(u':');
    std::u16string kind = FoldCase(data.substr(0, std::min(colon, data.size())));
    if (colon != data.npos && kind == u"DWORD") {
        return ParseDword(data.substr(colon + 1), value);
    }
    if (colon != data.npos && kind.starts_with(u"HEX")) {
        return ParseHexType(data, value) && ParseHex(data, value);
    }
    return Fail("unknown kind of data: \"" + ToUtf8(data) + "\"");
}

bool Parser::ParseString(std::u16string_view data, CmValue& value)
{
    std::optional<std::u16string> text = Quoted(data);
    if (!text) {
        return false;
    }
    data = Trim(data);
    if (!data.empty() && data[0] != u';') {
        return Fail("unexpected text after the closing '\"'");
    }
    value.type = static_cast<std::uint32_t>(CmType::String);
    value.data = CmStringData(*text);
    return true;
}

bool Parser::ParseDword(std::u16string_view digits, CmValue& value)
{
    std::string text = ToUtf8(Trim(digits.substr(0, digits.find(u';'))));
    std::uint32_t number = 0;
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, number, 16);
    if (error != std::errc() || stop != end || text.size() > 8) {
        return Fail("a dword has one to eight hexadecimal digits, not \"" + text + "\"");
    }
    value.type = static_cast<std::uint32_t>(CmType::Dword);
    auto bytes = std::as_bytes(std::span(&number, 1));
    value.data.assign(bytes.begin(), bytes.end());
    return true;
}

// Reads hex: or hex(type): and takes it off.
bool Parser::ParseHexType(std::u16string_view& data, CmValue& value)
{
    std::size_t colon = data.find(u':');
    std::string head = ToUtf8(data.substr(3, colon - 3));
    data.remove_prefix(colon + 1);
    value.type = static_cast<std::uint32_t>(CmType::Binary);
    if (head.empty()) {
        return true;
    }
    bool framed = head.size() > 2 && head.front() == '(' && head.back() == ')';
    const char* end = head.data() + head.size() - 1;
    auto [stop, error] = std::from_chars(head.data() + 1, end, value.type, 16);
    if (!framed || error != std::errc() || stop != end) {
        return Fail("bad type in \"hex" + head + ":\"");
    }
    return true;
}

bool Parser::JoinContinuation(std::u16string& data)
{
    while (data.ends_with(u'\\')) {
        data.pop_back();
        if (!NextLine()) {
            return Fail("the file ends inside a continued line");
        }
        data += line_;
    }
    return true;
}

bool Parser::ParseHex(std::u16string_view data, CmValue& value)
{
    std::u16string joined(data);
    if (!JoinContinuation(joined)) {
        return false;
    }
    std::string text = ToUtf8(Trim(std::u16string_view(joined).substr(0, joined.find(u';'))));
    std::string_view rest = text;
    while (!rest.empty()) {
        std::string_view item = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(item.size() + 1, rest.size()));
        item.remove_prefix(std::min(item.find_first_not_of(" \t"), item.size()));
        item = item.substr(0, item.find_last_not_of(" \t") + 1);
        unsigned number = 0;
        auto [stop, error] = std::from_chars(item.data(), item.data() + item.size(), number, 16);
        if (error != std::errc() || stop != item.data() + item.size() || item.size() > 2) {
            return Fail("expected two hexadecimal digits, not \"" + std::string(item) + "\"");
        }
        value.data.push_back(static_cast<std::byte>(number));
    }
    return true;
}

std::variant<std::vector<Operation>, CmRegError> Parser::Run()
{
    bool good = ParseHeader();
    while (good && NextLine()) {
        good = ParseLine();
    }
    if (error_) {
        return *error_;
    }
    return std::move(operations_);
}

void Apply(CmRegistry& registry, const Operation& operation)
{
    bool deletes = operation.kind == Operation::Kind::DeleteKey;
    CmKeyPtr key = deletes ? registry.Open(operation.key) : registry.Create(operation.key);
    if (!key) {
        return; // a key to delete that is not there
    }
    switch (operation.kind) {
    case Operation::Kind::CreateKey: break;
    case Operation::Kind::DeleteKey: registry.DeleteTree(key); break;
    case Operation::Kind::DeleteValue: registry.DeleteValue(key, operation.value.name); break;
    case Operation::Kind::SetValue:
        registry.SetValue(key, operation.value.name, operation.value.type, operation.value.data);
        break;
    }
}

std::u16string Quote(std::u16string_view text)
{
    std::u16string out = u"\"";
    for (char16_t c : text) {
        if (c == u'"' || c == u'\\') {
            out += u'\\';
        }
        out += c;
    }
    return out + u'"';
}

// True when `data` is what the text form of a string would be read back as.
bool IsPlainString(const CmValue& value)
{
    if (value.type != static_cast<std::uint32_t>(CmType::String)) {
        return false;
    }
    std::u16string text = CmStringText(value.data);
    bool oneLine = text.find_first_of(u"\r\n") == text.npos;
    return oneLine && CmStringData(text) == value.data;
}

std::u16string HexBytes(const CmValue& value, std::size_t column)
{
    constexpr std::u16string_view kDigits = u"0123456789abcdef";
    std::u16string out;
    for (std::size_t i = 0; i < value.data.size(); ++i) {
        bool last = i + 1 == value.data.size();
        if (column + 4 > kMaxLineWidth) {
            out += u"\\\r\n  ";
            column = 2;
        }
        auto byte = std::to_integer<unsigned>(value.data[i]);
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
        if (!last) {
            out += u',';
        }
        column += 3;
    }
    return out;
}

std::u16string ValueLine(const CmValue& value)
{
    std::u16string line = value.name.empty() ? u"@" : Quote(value.name);
    line += u'=';
    std::array<char, 24> text{};
    if (IsPlainString(value)) {
        return line + Quote(CmStringText(value.data)) + u"\r\n";
    }
    if (value.type == static_cast<std::uint32_t>(CmType::Dword) && value.data.size() == 4) {
        CmWrite asWrite{CmWrite::Kind::SetValue, {}, {}, value.type, value.data};
        std::snprintf(text.data(), text.size(), "dword:%08x", asWrite.Dword().value_or(0));
        return line + Wide(text.data()) + u"\r\n";
    }
    if (value.type == static_cast<std::uint32_t>(CmType::Binary)) {
        line += u"hex:";
    } else {
        std::snprintf(text.data(), text.size(), "hex(%x):", value.type);
        line += Wide(text.data());
    }
    return line + HexBytes(value, line.size()) + u"\r\n";
}

void AppendKey(std::u16string& out, const CmRegistry& registry, const CmKeyPtr& key,
               const std::u16string& name)
{
    out += u"\r\n[" + name + u"]\r\n";
    for (const CmValue& value : registry.Values(key)) {
        out += ValueLine(value);
    }
    for (const std::u16string& child : registry.SubKeys(key)) {
        if (CmKeyPtr childKey = registry.Open(key, child)) {
            AppendKey(out, registry, childKey, std::u16string(name).append(u"\\").append(child));
        }
    }
}

std::string Utf16Bytes(std::u16string_view text)
{
    std::string bytes;
    for (char16_t c : text) {
        bytes += static_cast<char>(c & 0xFF);
        bytes += static_cast<char>(c >> 8);
    }
    return bytes;
}

} // namespace

std::string CmRegError::Text() const
{
    return line == 0 ? message : "line " + std::to_string(line) + ": " + message;
}

std::optional<CmRegError> CmLoadRegText(CmRegistry& registry, std::string_view bytes)
{
    std::u16string text;
    if (std::optional<CmRegError> error = Decode(bytes, text)) {
        return error;
    }
    auto result = Parser(text).Run();
    if (auto* error = std::get_if<CmRegError>(&result)) {
        return *error;
    }
    for (const Operation& operation : std::get<std::vector<Operation>>(result)) {
        Apply(registry, operation);
    }
    return std::nullopt;
}

std::optional<CmRegError> CmLoadRegFile(CmRegistry& registry, const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::string bytes;
    std::array<char, 4096> block{};
    while (in) {
        in.read(block.data(), block.size());
        bytes.append(block.data(), static_cast<std::size_t>(in.gcount()));
    }
    if (!in.is_open() || in.bad()) {
        return CmRegError{0, "cannot be read: " + std::generic_category().message(errno)};
    }
    return CmLoadRegText(registry, bytes);
}

std::string CmSaveRegText(const CmRegistry& registry, std::u16string_view path, CmRegEncoding encoding)
{
    CmKeyPtr key = registry.Open(path);
    std::optional<std::u16string> name = key ? FilePath(registry.Path(key)) : std::nullopt;
    if (!name) {
        return {};
    }
    std::u16string text = std::u16string(kHeader) + u"\r\n";
    AppendKey(text, registry, key, *name);
    if (encoding == CmRegEncoding::Utf8) {
        return ToUtf8(text);
    }
    return Utf16Bytes(kByteOrderMark) + Utf16Bytes(text);
}

std::optional<CmRegError> CmSaveRegFile(const CmRegistry& registry, std::u16string_view path,
                                        const std::filesystem::path& file, CmRegEncoding encoding)
{
    std::string text = CmSaveRegText(registry, path, encoding);
    if (text.empty()) {
        return CmRegError{0, "there is no key " + ToUtf8(path)};
    }
    std::filesystem::path draft = file;
    draft += ".new";
    std::ofstream out(draft, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    std::error_code error;
    if (out) {
        std::filesystem::rename(draft, file, error);
    }
    if (!out || error) {
        std::filesystem::remove(draft, error);
        return CmRegError{0, "cannot write " + file.string()};
    }
    return std::nullopt;
}

} // namespace host
