// The text parsers on arbitrary bytes: no crash, no read past the text, no
// leak. The first byte picks the parser. Property: a text list or sequence
// that parses writes a text form that parses back to the same text form.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sexp/object.h"
#include "sexp/reader.h"

namespace {

using namespace velk2;
using fuzz::Check;

std::string TextOf(const SexpObject& object, const char* keyword) {
  CBuffer<char> text = ToAdvancedText(&object, keyword);
  return text ? std::string(text.get()) : std::string();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const int selector = data[0] % 6;
  const char* body = reinterpret_cast<const char*>(data + 1);
  const size_t length = size - 1;
  // The NUL-terminated parsers read a copy with a NUL; the bounded ones an
  // exact copy without one, so that any read past it is caught.
  const std::string text(body, length);
  auto bounded = std::make_unique<char[]>(length ? length : 1);
  std::memcpy(bounded.get(), body, length);

  switch (selector) {
    case 0: {
      Ref<SexpList> list;
      size_t position = 0;
      if (ParseTextList(&list, text.c_str(), &position, nullptr) != VELK2_SUCCESS) {
        Check(list == nullptr, "a failed parse leaves no list");
        break;
      }
      Check(position <= length, "position inside the text");
      const std::string first = TextOf(*list, nullptr);
      Ref<SexpList> again;
      size_t again_position = 0;
      Check(ParseTextList(&again, first.c_str(), &again_position, nullptr) == VELK2_SUCCESS,
            "the text form parses");
      Check(TextOf(*again, nullptr) == first, "to the same text form");
      break;
    }
    case 1: {
      Ref<SexpList> list;
      if (ParseTextSequence(&list, text.c_str(), "tag", nullptr) != VELK2_SUCCESS) {
        Check(list == nullptr, "a failed parse leaves no list");
        break;
      }
      if (list->ChildCount() == 1) break;  // the keyword alone has no middle to cut
      const std::string middle = TextOf(*list, "tag");
      Ref<SexpList> again;
      Check(ParseTextSequence(&again, middle.c_str(), "tag", nullptr) == VELK2_SUCCESS,
            "the text form parses");
      Check(TextOf(*again, "tag") == middle, "to the same text form");
      break;
    }
    case 2: {
      Ref<SexpAtom> atom;
      size_t position = 0;
      Check(ParseToken(&atom, text.c_str(), &position, nullptr) == VELK2_SUCCESS, "token");
      Check(position <= length, "position inside the text");
      break;
    }
    case 3: {
      Ref<SexpList> list;
      size_t position = 0;
      if (ParseLengthPrefixedList(&list, bounded.get(), length, &position, nullptr) ==
          VELK2_SUCCESS) {
        Check(position <= length, "position inside the text");
        CBuffer<uint8_t> canonical;
        uint32_t canonical_size = 0;
        Check(ToCanonicalBuffer(list.get(), &canonical, &canonical_size) == VELK2_SUCCESS,
              "the list writes");
      } else {
        Check(list == nullptr, "a failed parse leaves no list");
      }
      break;
    }
    case 4: {
      Ref<SexpAtom> atom;
      size_t position = 0;
      if (length != 0 && ParseLengthPrefixedAtom(&atom, bounded.get(), length, &position,
                                                 nullptr) == VELK2_SUCCESS) {
        Check(position <= length, "position inside the text");
      }
      break;
    }
    case 5: {
      // A literal taken from the front of the text, checked at a position.
      if (length < 2) break;
      const size_t literal_size = data[1] % 16;
      if (literal_size + 2 > length) break;
      const std::string literal(body + 1, literal_size);
      size_t position = static_cast<uint8_t>(body[1 + literal_size]) % 8;
      if (literal.find('\0') != std::string::npos) break;
      ExpectLiteralBounded(literal.c_str(), bounded.get(), length, &position);
      break;
    }
  }
  return 0;
}
