#pragma once

#include <QString>

namespace KepPlugin {
namespace XmlNesting {

// QDomDocument's reader recurses once per open element and the DOM frees its nodes
// recursively, so a text nested some ten thousand levels deep overflows the stack (and
// parses in quadratic time long before). Real service replies and profiles are under ten
// levels deep; deeper text is refused like malformed text. Entities can add at most a few
// hundred levels more, as Qt refuses any entity expanding to over 4096 characters.
constexpr int maxElementNesting = 256;

// True when a DOM built from the text would hold more than maxElementNesting open elements
// at once; linear in the length of the text.
bool nestsTooDeep(const QString& text);

} // namespace XmlNesting
} // namespace KepPlugin
