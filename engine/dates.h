// The engine's value checks and comparisons for the range orderings and for
// validity periods. The engine never turns a date into a number: dates are
// atoms in the form "####-##-##_##:##:##", which sorts like the time it names,
// so periods are compared and intersected as byte strings.
#ifndef VELK2_ENGINE_DATES_H_
#define VELK2_ENGINE_DATES_H_

#include <cstdint>

#include "engine/status.h"
#include "engine/store.h"

namespace velk2::engine {

// The result of every value comparison.
enum AtomOrder : int {
  kOrderEqual = 0,
  kOrderBefore = 1,  // the first sorts before the second
  kOrderAfter = 2,   // the first sorts after the second
  kOrderIncomparable = 3,
};

inline constexpr char kDateTemplate[] = "####-##-##_##:##:##";
inline constexpr char kTimeTemplate[] = "##:##:##";

// MatchTemplate returns 1 when |atom| fits |tmpl| ("#" a decimal digit, any
// other character itself), else 0. An atom with a display hint never fits; it
// may be shorter than the template only where the template's next character
// is a separator. The empty atom fits.
int MatchTemplate(const EngineAtom* atom, const char* tmpl);

// IsValidDate: fits the date template and names a real date (the year alone
// is enough; a month must be 1-12, a day within the month, an hour below 24,
// minutes and seconds below 60). March has no length in the engine's month
// table, so any March date with a day is refused: kept, because every range
// and validity the engine has ever accepted was checked this way.
int IsValidDate(const EngineAtom* atom);
// IsValidTime: fits "##:##:##" with hour below 24 and minute and second below 60.
int IsValidTime(const EngineAtom* atom);
// IsValidNumber: no display hint, an optional "+" or "-", then digits only,
// without a leading "0" when there is more than one digit. A lone sign passes.
int IsValidNumber(const EngineAtom* atom);

// CompareAtoms: 3 unless both display hints are absent or equal; then the
// bytes as unsigned values, 0 past the shorter one's end, stopping as equal
// where both give 0. So a date truncated after the day sorts before the same
// day with a time. Null atoms are incomparable.
AtomOrder CompareAtoms(const EngineAtom* a, const EngineAtom* b);

// CompareInOrdering compares two range values in the ordering named by the
// keyword id |ordering|: alpha, date and time by CompareAtoms; binary as
// unsigned big-endian numbers; numeric as signed decimal numbers. Any other
// ordering, or different display hints for binary and numeric, gives 3.
AtomOrder CompareInOrdering(const EngineAtom* a, const EngineAtom* b, int32_t ordering);

// LaterOf and EarlierOf pick one of two optional dates (borrowed, no count
// taken). A missing |a| gives |b|; otherwise |b| wins ties and incomparable
// values: kept, so that the requested period's date is the one that stays.
EngineAtom* LaterOf(EngineAtom* a, EngineAtom* b);
EngineAtom* EarlierOf(EngineAtom* a, EngineAtom* b);

// ReadValidity reads a credential's own period from |list|, the head of a
// not-before, not-after or valid list (any other list is ignored): a
// not-before or not-after list sets that slot to the atom after the keyword
// (or to none); a valid list has each of its sublists read the same way. The
// slots are set through AssignAtom. A slot that already holds a date is
// replaced, and the first such repetition is reported after the whole list
// was read: SPKI_ERR_TOO_MANY_NOT_BEFORE (-159) or
// SPKI_ERR_TOO_MANY_NOT_AFTER (-160). Nesting past kMaxNesting gives
// SPKI_ERR_BAD_SEXP (-130).
Status ReadValidity(EngineContext& engine, EngineAtom** not_before, EngineAtom** not_after,
                    const EngineNode* list);

// IntersectValidity narrows the period in the slots by the requested period
// |list|: not-before takes the later of the two, not-after the earlier; in a
// valid list an atom narrows both sides and a sublist applies recursively.
// When both sides are present afterwards and not-before sorts after
// not-after, the result is SPKI_ERR_DATE_INTERSECTION (-168); an equal pair is
// a one-instant period.
Status IntersectValidity(EngineContext& engine, EngineAtom** not_before, EngineAtom** not_after,
                         const EngineNode* list);

}  // namespace velk2::engine

#endif  // VELK2_ENGINE_DATES_H_
