#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/utf.h"
#include "velk2.h"

namespace {

struct NamedCode {
  uint32_t code;
  const char* name;
};

// The header's constant and the message's text must agree for every named code.
#define NAMED(code) \
  { code, #code }
const NamedCode kNamed[] = {
    NAMED(VELK2_ERR_INVALID_PARAM),
    NAMED(VELK2_ERR_MEM_ALLOC),
    NAMED(VELK2_ERR_STAT_FILE),
    NAMED(VELK2_ERR_FILE_NOT_FOUND),
    NAMED(VELK2_ERR_INVALID_DATA),
    NAMED(VELK2_ERR_FILE_OPEN),
    NAMED(VELK2_ERR_RESERVED8),
    NAMED(VELK2_ERR_PARSE_FILE),
    NAMED(VELK2_ERR_READ_FILE),
    NAMED(VELK2_ERR_PRINCIPAL),
    NAMED(VELK2_ERR_INVALID_HASH),
    NAMED(VELK2_ERR_UNKNOWN_HASH_ID),
    NAMED(VELK2_ERR_MAX_BYTE_STRING),
    NAMED(VELK2_ERR_SIGNATURE_ID),
    NAMED(VELK2_ERR_HASH_ID),
    NAMED(VELK2_ERR_BIG_INT_BUFFER_SIZE),
    NAMED(VELK2_ERR_NOT_IMPLEMENTED),
    NAMED(VELK2_ERR_OPEN_MANIFEST_FILE),
    NAMED(VELK2_ERR_COMMAND_LINE_OPTION),
    NAMED(VELK2_ERR_SIGNATURE),
    NAMED(VELK2_ERR_HASH_MISMATCH),
    NAMED(VELK2_ERR_PRIVATE_KEY_TYPE),
    NAMED(VELK2_ERR_NOT_SUPPORTED),
    NAMED(VELK2_ERR_CREATE_DIR),
    NAMED(VELK2_ERR_FIND_DIR),
    NAMED(VELK2_ERR_SUB_COMMAND),
    NAMED(VELK2_ERR_UNEXPECTED_CHAR),
    NAMED(VELK2_ERR_INVALID_S_EXPRESSION),
    NAMED(VELK2_ERR_BUFFER_OVERFLOW),
    NAMED(VELK2_ERR_NOT_AUTHORIZED),
    NAMED(VELK2_ERR_HASH_MATCH),
    NAMED(VELK2_ERR_RANDOM_TOKEN),
    NAMED(VELK2_ERR_TIME_STAMP),
    NAMED(VELK2_ERR_AUTH_TAG_MISSING),
    NAMED(VELK2_ERR_SIGNING_CERT_ORDER),
    NAMED(VELK2_ERR_CONTAINING_DIR),
    NAMED(VELK2_ERR_PARAM_NULL),
    NAMED(VELK2_ERR_PARAM_NOT_NULL),
    NAMED(VELK2_ERR_ALL_USERS_DIR),
    NAMED(VELK2_ERROR_SUBJECT_FOUND),
    NAMED(VELK2_ERROR_FINDING_ISSUER),
    NAMED(VELK2_ERR_LOG_FILE_OPEN),
    NAMED(VELK2_ERR_ZERO_AUTH_MATCH),
    NAMED(VELK2_ERR_MULTI_AUTH_MATCH),
    NAMED(VELK2_ERR_ISSUER_SIGNER_MATCH),
    NAMED(VELK2_ERR_ISSUER_MISMATCH),
    NAMED(VELK2_ERR_PROPAGATE),
    NAMED(VELK2_ERR_NO_ISSUER_FOUND),
    NAMED(VELK2_ERR_SIGNER_AUTH_NARROWER),
    NAMED(VELK2_ERR_NOT_BEFORE),
    NAMED(VELK2_ERR_NOT_AFTER),
    NAMED(VELK2_ERR_NEEDS_MORE_SIGNING),
    NAMED(VELK2_ERR_ACL_ENTRY_NOT_FOUND),
    NAMED(VELK2_ERR_AUTH_NOT_SUBSET),
    NAMED(VELK2_ERR_MANIFEST_VERSION),
    NAMED(VELK2_ERR_MANIFEST_TYPE),
    NAMED(VELK2_ERR_NOT_BEFORE_AFTER),
    NAMED(VELK2_ERR_NO_REVOCATION_ACL),
    NAMED(VELK2_ERR_USER_INTERRUPT),
    NAMED(VELK2_ERR_NO_REVOCATION_SPEC),
    NAMED(VELK2_ERR_ACL_KEY_NOT_FOUND),
    NAMED(VELK2_ERR_AUTH_TAGS_ARE_EQUAL),
    NAMED(VELK2_ERR_INVALID_SEQUENCE),
    NAMED(VELK2_ERR_ALREADY_ISSUED_BY_KEY),
    NAMED(VELK2_ERR_CERT_REVOKED),
    NAMED(VELK2_ERR_KEY_REVOKED),
    NAMED(VELK2_ERR_NOT_IN_LIST),
    NAMED(VELK2_ERR_INVALID_REVOCATION_TAG),
    NAMED(VELK2_ERR_NOT_OBJECT_CERT),
    NAMED(VELK2_ERR_INVALID_PASSPHRASE),
    NAMED(VELK2_ERR_CRL_NOT_FOUND),
    NAMED(VELK2_ERR_EXTRA_FILES),
    NAMED(VELK2_ERR_FAILURE),
    NAMED(VELK2_ERR_WRITE_FILE),
};
#undef NAMED

std::string Wide(const char16_t* text) {
  return velk2::Utf16ToUtf8(text);
}

TEST(Messages, EveryCodeHasItsNameOrSentence) {
  std::set<uint32_t> seen;
  for (const NamedCode& c : kNamed) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Wide(Velk2ErrorMessage(c.code)), c.name);
    EXPECT_STREQ(Velk2ErrorMessageA(c.code), c.name);
    seen.insert(c.code);
  }
  // A text read earlier is still its own after other calls: never a shared buffer.
  const char16_t* success = Velk2ErrorMessage(0);
  EXPECT_EQ(Wide(Velk2ErrorMessage(1)), "Failure");
  EXPECT_EQ(Wide(success), "Success");
  EXPECT_EQ(Wide(Velk2ErrorMessage(67)),
            "The specified package is not granted the specified authorization");
  EXPECT_STREQ(Velk2ErrorMessageA(VELK2_ERR_NOT_GRANTED),
               "The specified package is not granted the specified authorization");
  // Together with 0, 1 and 67 the named codes cover 0..76 exactly once.
  seen.insert({0, 1, 67});
  EXPECT_EQ(seen.size(), static_cast<size_t>(VELK2_MAX_ERROR));
  EXPECT_EQ(*seen.rbegin(), VELK2_MAX_ERROR - 1);
}

TEST(Messages, OutOfRangeAndNegativeAreUnknown) {
  for (uint32_t code : {77u, 78u, 1000u, 16386u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu,
                        static_cast<uint32_t>(-126), static_cast<uint32_t>(-200)}) {
    SCOPED_TRACE(code);
    EXPECT_EQ(Wide(Velk2ErrorMessage(code)), "VELK_UNKNOWN_ERROR");
    EXPECT_STREQ(Velk2ErrorMessageA(code), "VELK_UNKNOWN_ERROR");
  }
}

}  // namespace
