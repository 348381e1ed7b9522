// Splitting text at a separator character, shared by the URI and path code.
#pragma once

#include <vector>

#include "kx/string.h"

namespace kx {
namespace detail {

// Splits at `separator`, keeping empty pieces: "a//b" gives "a", "", "b";
// "" gives one empty piece.
inline std::vector<String> splitAt(const String& text, wxUniChar separator) {
  std::vector<String> pieces;
  String piece;
  for (wxUniChar c : text) {
    if (c == separator) {
      pieces.push_back(piece);
      piece.clear();
    } else {
      piece += c;
    }
  }
  pieces.push_back(piece);
  return pieces;
}

}  // namespace detail
}  // namespace kx
