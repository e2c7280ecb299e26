#include "Platform/Linux/CodeSigning/CodeSignatureContent.h"

#include <charconv>
#include <system_error>

namespace quorvane::xpc {
namespace {

constexpr std::string_view hexDigits = "0123456789abcdef";
constexpr std::string_view identifierBytes =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-";

/// Takes a line with its LF off the text; yields what follows the label. Nothing when the text
/// begins with no such line.
std::optional<std::string_view> takeLine(std::string_view& text, std::string_view label) {
  const std::size_t end = text.find('\n');
  if (end == std::string_view::npos || !text.starts_with(label)) return std::nullopt;
  const std::string_view value = text.substr(label.size(), end - label.size());
  text.remove_prefix(end + 1);
  return value;
}

bool isIdentifier(std::string_view value) {
  return !value.empty() && value.size() <= CodeSignatureContent::maxIdentifierLength &&
         value.find_first_not_of(identifierBytes) == std::string_view::npos;
}

/// Decimal digits without sign or leading zeros.
std::optional<std::uint64_t> parseSize(std::string_view value) {
  std::uint64_t size = 0;
  const char* const end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, size);
  if (error != std::errc{} || stop != end) return std::nullopt;
  if (value.size() > 1 && value.front() == '0') return std::nullopt;
  return size;
}

bool isDigest(std::string_view value) {
  return value.size() == CodeSignatureContent::digestLength &&
         value.find_first_not_of(hexDigits) == std::string_view::npos;
}

}  // namespace

std::optional<CodeSignatureContent> CodeSignatureContent::parse(std::string_view text) {
  const std::optional<std::string_view> identifier = takeLine(text, "identifier: ");
  if (!identifier || !isIdentifier(*identifier)) return std::nullopt;
  const std::optional<std::string_view> sizeText = takeLine(text, "size: ");
  const std::optional<std::uint64_t> size = sizeText ? parseSize(*sizeText) : std::nullopt;
  if (!size) return std::nullopt;
  const std::optional<std::string_view> sha256 = takeLine(text, "sha256: ");
  if (!sha256 || !isDigest(*sha256) || !text.empty()) return std::nullopt;
  return CodeSignatureContent{std::string(*identifier), *size, std::string(*sha256)};
}

}  // namespace quorvane::xpc
