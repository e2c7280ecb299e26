#include "Platform/Linux/CodeSigning/SignatureContent.h"

#include <charconv>

namespace quorvane::codesigning {
namespace {

constexpr std::string_view hexDigits = "0123456789abcdef";
constexpr std::string_view identifierBytes =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-";

/// Takes a line with its LF off the text. Returns what follows the label; empty if the text does
/// not begin with such a line.
std::string_view takeLine(std::string_view& text, std::string_view label) {
  const std::size_t end = text.find('\n');
  if (end == std::string_view::npos || !text.starts_with(label)) return {};
  const std::string_view value = text.substr(label.size(), end - label.size());
  text.remove_prefix(end + 1);
  return value;
}

bool isDigest(std::string_view text) {
  return text.size() == SignatureContent::digestLength &&
         text.find_first_not_of(hexDigits) == std::string_view::npos;
}

}  // namespace

bool SignatureContent::isIdentifier(std::string_view text) {
  return !text.empty() && text.size() <= maxIdentifierLength &&
         text.find_first_not_of(identifierBytes) == std::string_view::npos;
}

std::string SignatureContent::text() const {
  return "identifier: " + identifier + "\nsize: " + std::to_string(size) + "\nsha256: " + sha256 +
         "\n";
}

std::optional<SignatureContent> SignatureContent::parse(std::string_view text) {
  std::string_view rest = text;
  SignatureContent content;
  content.identifier = takeLine(rest, "identifier: ");
  const std::string_view digits = takeLine(rest, "size: ");
  std::from_chars(digits.data(), digits.data() + digits.size(), content.size);
  content.sha256 = takeLine(rest, "sha256: ");
  // If any part had another form, the text of this content differs.
  if (!isIdentifier(content.identifier) || !isDigest(content.sha256) || content.text() != text) {
    return std::nullopt;
  }
  return content;
}

}  // namespace quorvane::codesigning
