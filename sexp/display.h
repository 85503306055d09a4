// The readable display form of S-expressions, for people looking at a
// credential file ("velk2 show"). It is for reading only: nothing parses it.
#ifndef VELK2_SEXP_DISPLAY_H_
#define VELK2_SEXP_DISPLAY_H_

#include <string>
#include <vector>

#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

// ReadCanonicalElements reads every top-level element (list or atom) of the
// source up to its end. The reader's code on failure (*elements then holds
// the elements before the bad one); VELK2_ERR_PARSE_FILE (9) when the source
// holds nothing at all.
Result ReadCanonicalElements(SexpSource* source, Velk2Context* context,
                             std::vector<Ref<SexpObject>>* elements);

// FormatReadable renders |object| with one element per line, indented two
// spaces per level; a list whose whole form fits in 64 bytes stays on one
// line, and a list's leading atom stays on its "(" line. Atoms:
//   - tokens of letters, digits and "-./_:*+=" as they are;
//   - other printable text in double quotes, with \" and \\ escaped;
//   - binary bytes as hex between "#" (up to 16 bytes) or base64 between "|";
//   - the empty atom as "";
//   - a display hint first, as [bin], [utf-8] or [num].
// Lists nested past kMaxWriteDepth are shown as "(...)". Ends with a newline.
std::string FormatReadable(const SexpObject& object);

// FormatReadableLine renders |object| on one line, list elements separated by
// one space, with the atom rules of FormatReadable; the form in which a person
// types a tag. No newline at the end.
std::string FormatReadableLine(const SexpObject& object);

}  // namespace velk2

#endif  // VELK2_SEXP_DISPLAY_H_
