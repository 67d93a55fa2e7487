#include "metadata.h"

#include "errors.h"

#include <optional>

namespace zo::project::detail {
namespace {

constexpr std::string_view header = "zo-project-metadata 1\n";
constexpr char hexDigits[] = "0123456789ABCDEF";

bool needsEscape(unsigned char c)
{
    return c == '%' || c == '=' || c < 0x20 || c == 0x7f;
}

void appendEscaped(std::string& out, std::string_view text)
{
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (needsEscape(byte)) {
            out += '%';
            out += hexDigits[byte >> 4];
            out += hexDigits[byte & 0xf];
        } else {
            out += c;
        }
    }
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::optional<std::string> unescape(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte != '%') {
            if (needsEscape(byte))
                return std::nullopt;
            out += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
        const int low = high >= 0 ? hexValue(text[i + 2]) : -1;
        if (low < 0)
            return std::nullopt;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

[[noreturn]] void corrupt(const std::string& file, const std::string& reason)
{
    fail(file, "corrupt metadata: " + reason);
}

} // namespace

std::string encodeMetadata(const Metadata& metadata)
{
    if (metadata.empty())
        return {};
    std::string text(header);
    for (const auto& [key, value] : metadata) {
        appendEscaped(text, key);
        text += '=';
        appendEscaped(text, value);
        text += '\n';
    }
    return text;
}

Metadata decodeMetadata(std::string_view text, const std::string& file)
{
    Metadata metadata;
    if (text.empty())
        return metadata;
    if (text.substr(0, header.size()) != header)
        corrupt(file, "unknown header");
    text.remove_prefix(header.size());
    for (int line = 2; !text.empty(); ++line) {
        const auto end = text.find('\n');
        if (end == std::string_view::npos)
            corrupt(file, "line " + std::to_string(line) + " is cut short");
        const std::string_view entry = text.substr(0, end);
        text.remove_prefix(end + 1);
        const auto equals = entry.find('=');
        const auto key = unescape(entry.substr(0, equals));
        const auto value
            = equals == std::string_view::npos ? std::nullopt : unescape(entry.substr(equals + 1));
        if (!key || !value)
            corrupt(file, "line " + std::to_string(line) + " is malformed");
        if (!metadata.emplace(*key, *value).second)
            corrupt(file, "line " + std::to_string(line) + " repeats a key");
    }
    return metadata;
}

} // namespace zo::project::detail
