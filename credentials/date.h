// Validity dates: the 19-byte UTC date text "YYYY-MM-DD_hh:mm:ss" of date
// atoms, its conversion to and from 64-bit seconds since 1970 UTC, the
// current time, and the ordering tests on date atoms. Because every field has
// a fixed width, the byte order of two date texts is their time order.
#ifndef VELK2_CREDENTIALS_DATE_H_
#define VELK2_CREDENTIALS_DATE_H_

#include <cstdint>
#include <string>

#include "frame/result.h"
#include "sexp/object.h"

namespace velk2 {

// The length of a date text.
constexpr uint32_t kDateLength = 19;
// WriteDate's answer when the time has no calendar date.
constexpr Result kDateUnrepresentable = 0xFFFFFFFFu;

// WriteDate sets |atom|'s bytes to the date text of |time| (UTC), keeping its
// display hint. 0; kDateUnrepresentable, atom unchanged, when the time cannot
// be broken down; VELK2_ERR_MEM_ALLOC (3), atom emptied, when memory runs
// out; VELK2_ERR_INVALID_PARAM (2) for a null atom. A year past 9999 does
// not fit the text and is cut to its first 19 bytes.
Result WriteDate(SexpAtom* atom, int64_t time);

// DateText: the date text of |time| as WriteDate writes it, or empty when
// the time has no calendar date.
std::string DateText(int64_t time);

// ReadDate: the time that |atom|'s date text denotes, read as UTC whatever
// the process's time zone. The digits are not checked and the separators not
// examined: "2006/03/01 12:00:00" reads like "2006-03-01_12:00:00", and a
// malformed date gives a meaningless but defined time. Bytes missing from a
// short atom count as "0"; a null atom gives 0.
int64_t ReadDate(const SexpAtom* atom);

// CurrentTime: the current time in seconds since 1970 UTC, also stored into
// *out when it is not null.
int64_t CurrentTime(int64_t* out = nullptr);

// The ordering tests compare the first 19 bytes of the two texts as unsigned
// bytes (a short atom's missing bytes count as 0). Each is false when b (or
// a) is null.
bool DateBefore(const SexpAtom* a, const SexpAtom* b);     // a < b
bool DateNotAfter(const SexpAtom* a, const SexpAtom* b);   // a <= b
bool DateAfter(const SexpAtom* a, const SexpAtom* b);      // a > b
bool DateNotBefore(const SexpAtom* a, const SexpAtom* b);  // a >= b

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_DATE_H_
