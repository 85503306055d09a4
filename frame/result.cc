#include "frame/result.h"

#include <array>

namespace velk2 {
namespace {

// The messages of codes 0..76, with one UTF-16 and one UTF-8 copy of each.
#define VELK2_MESSAGES(X)                                               \
  X("Success")                                                          \
  X("Failure")                                                          \
  X("VELK2_ERR_INVALID_PARAM")                                          \
  X("VELK2_ERR_MEM_ALLOC")                                              \
  X("VELK2_ERR_STAT_FILE")                                              \
  X("VELK2_ERR_FILE_NOT_FOUND")                                         \
  X("VELK2_ERR_INVALID_DATA")                                           \
  X("VELK2_ERR_FILE_OPEN")                                              \
  X("VELK2_ERR_RESERVED8")                                              \
  X("VELK2_ERR_PARSE_FILE")                                             \
  X("VELK2_ERR_READ_FILE")                                              \
  X("VELK2_ERR_PRINCIPAL")                                              \
  X("VELK2_ERR_INVALID_HASH")                                           \
  X("VELK2_ERR_UNKNOWN_HASH_ID")                                        \
  X("VELK2_ERR_MAX_BYTE_STRING")                                        \
  X("VELK2_ERR_SIGNATURE_ID")                                           \
  X("VELK2_ERR_HASH_ID")                                                \
  X("VELK2_ERR_BIG_INT_BUFFER_SIZE")                                    \
  X("VELK2_ERR_NOT_IMPLEMENTED")                                        \
  X("VELK2_ERR_OPEN_MANIFEST_FILE")                                     \
  X("VELK2_ERR_COMMAND_LINE_OPTION")                                    \
  X("VELK2_ERR_SIGNATURE")                                              \
  X("VELK2_ERR_HASH_MISMATCH")                                          \
  X("VELK2_ERR_PRIVATE_KEY_TYPE")                                       \
  X("VELK2_ERR_NOT_SUPPORTED")                                          \
  X("VELK2_ERR_CREATE_DIR")                                             \
  X("VELK2_ERR_FIND_DIR")                                               \
  X("VELK2_ERR_SUB_COMMAND")                                            \
  X("VELK2_ERR_UNEXPECTED_CHAR")                                        \
  X("VELK2_ERR_INVALID_S_EXPRESSION")                                   \
  X("VELK2_ERR_BUFFER_OVERFLOW")                                        \
  X("VELK2_ERR_NOT_AUTHORIZED")                                         \
  X("VELK2_ERR_HASH_MATCH")                                             \
  X("VELK2_ERR_RANDOM_TOKEN")                                           \
  X("VELK2_ERR_TIME_STAMP")                                             \
  X("VELK2_ERR_AUTH_TAG_MISSING")                                       \
  X("VELK2_ERR_SIGNING_CERT_ORDER")                                     \
  X("VELK2_ERR_CONTAINING_DIR")                                         \
  X("VELK2_ERR_PARAM_NULL")                                             \
  X("VELK2_ERR_PARAM_NOT_NULL")                                         \
  X("VELK2_ERR_ALL_USERS_DIR")                                          \
  X("VELK2_ERROR_SUBJECT_FOUND")                                        \
  X("VELK2_ERROR_FINDING_ISSUER")                                       \
  X("VELK2_ERR_LOG_FILE_OPEN")                                          \
  X("VELK2_ERR_ZERO_AUTH_MATCH")                                        \
  X("VELK2_ERR_MULTI_AUTH_MATCH")                                       \
  X("VELK2_ERR_ISSUER_SIGNER_MATCH")                                    \
  X("VELK2_ERR_ISSUER_MISMATCH")                                        \
  X("VELK2_ERR_PROPAGATE")                                              \
  X("VELK2_ERR_NO_ISSUER_FOUND")                                        \
  X("VELK2_ERR_SIGNER_AUTH_NARROWER")                                   \
  X("VELK2_ERR_NOT_BEFORE")                                             \
  X("VELK2_ERR_NOT_AFTER")                                              \
  X("VELK2_ERR_NEEDS_MORE_SIGNING")                                     \
  X("VELK2_ERR_ACL_ENTRY_NOT_FOUND")                                    \
  X("VELK2_ERR_AUTH_NOT_SUBSET")                                        \
  X("VELK2_ERR_MANIFEST_VERSION")                                       \
  X("VELK2_ERR_MANIFEST_TYPE")                                          \
  X("VELK2_ERR_NOT_BEFORE_AFTER")                                       \
  X("VELK2_ERR_NO_REVOCATION_ACL")                                      \
  X("VELK2_ERR_USER_INTERRUPT")                                         \
  X("VELK2_ERR_NO_REVOCATION_SPEC")                                     \
  X("VELK2_ERR_ACL_KEY_NOT_FOUND")                                      \
  X("VELK2_ERR_AUTH_TAGS_ARE_EQUAL")                                    \
  X("VELK2_ERR_INVALID_SEQUENCE")                                       \
  X("VELK2_ERR_ALREADY_ISSUED_BY_KEY")                                  \
  X("VELK2_ERR_CERT_REVOKED")                                           \
  X("The specified package is not granted the specified authorization") \
  X("VELK2_ERR_KEY_REVOKED")                                            \
  X("VELK2_ERR_NOT_IN_LIST")                                            \
  X("VELK2_ERR_INVALID_REVOCATION_TAG")                                 \
  X("VELK2_ERR_NOT_OBJECT_CERT")                                        \
  X("VELK2_ERR_INVALID_PASSPHRASE")                                     \
  X("VELK2_ERR_CRL_NOT_FOUND")                                          \
  X("VELK2_ERR_EXTRA_FILES")                                            \
  X("VELK2_ERR_FAILURE")                                                \
  X("VELK2_ERR_WRITE_FILE")

#define VELK2_WIDE(text) u"" text,
#define VELK2_NARROW(text) text,
constexpr std::array<const char16_t*, VELK2_MAX_ERROR> kMessages = {VELK2_MESSAGES(VELK2_WIDE)};
constexpr std::array<const char*, VELK2_MAX_ERROR> kMessagesUtf8 = {VELK2_MESSAGES(VELK2_NARROW)};
#undef VELK2_WIDE
#undef VELK2_NARROW

// One prefix word shorter than the code names (no "2"): callers match this text.
constexpr char16_t kUnknown[] = u"VELK_UNKNOWN_ERROR";
constexpr char kUnknownUtf8[] = "VELK_UNKNOWN_ERROR";

}  // namespace

const char16_t* ErrorMessage(Result code) {
  if (static_cast<int32_t>(code) < 0 || code >= VELK2_MAX_ERROR) return kUnknown;
  return kMessages[code];
}

const char* ErrorMessageUtf8(Result code) {
  if (static_cast<int32_t>(code) < 0 || code >= VELK2_MAX_ERROR) return kUnknownUtf8;
  return kMessagesUtf8[code];
}

}  // namespace velk2
