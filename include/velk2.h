/* velk2: trust decisions for signed packages and the SPKI credentials behind them.
 *
 * Every function returns a VELK2_RESULT (0 success, 1..76 failures) unless its
 * declaration says otherwise. Wide strings are UTF-16 (char16_t), narrow strings
 * UTF-8. Memory that an export allocates for the caller is released with
 * Velk2Free; credential records with their family's free function. */
#ifndef VELK2_H
#define VELK2_H

#include <stdint.h>
#ifdef __cplusplus
#include <cuchar>
#else
#include <uchar.h>
#endif

#if defined(VELK2_BUILDING_LIBRARY)
#define VELK2_EXPORT __attribute__((visibility("default")))
#else
#define VELK2_EXPORT
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t VELK2_RESULT;

#define VELK2_SUCCESS 0u
#define VELK2_FAILURE 1u
#define VELK2_ERR_INVALID_PARAM 2u
#define VELK2_ERR_MEM_ALLOC 3u
#define VELK2_ERR_STAT_FILE 4u
#define VELK2_ERR_FILE_NOT_FOUND 5u
#define VELK2_ERR_INVALID_DATA 6u
#define VELK2_ERR_FILE_OPEN 7u
#define VELK2_ERR_RESERVED8 8u
#define VELK2_ERR_PARSE_FILE 9u
#define VELK2_ERR_READ_FILE 10u
#define VELK2_ERR_PRINCIPAL 11u
#define VELK2_ERR_INVALID_HASH 12u
#define VELK2_ERR_UNKNOWN_HASH_ID 13u
#define VELK2_ERR_MAX_BYTE_STRING 14u
#define VELK2_ERR_SIGNATURE_ID 15u
#define VELK2_ERR_HASH_ID 16u
#define VELK2_ERR_BIG_INT_BUFFER_SIZE 17u
#define VELK2_ERR_NOT_IMPLEMENTED 18u
#define VELK2_ERR_OPEN_MANIFEST_FILE 19u
#define VELK2_ERR_COMMAND_LINE_OPTION 20u
#define VELK2_ERR_SIGNATURE 21u
#define VELK2_ERR_HASH_MISMATCH 22u
#define VELK2_ERR_PRIVATE_KEY_TYPE 23u
#define VELK2_ERR_NOT_SUPPORTED 24u
#define VELK2_ERR_CREATE_DIR 25u
#define VELK2_ERR_FIND_DIR 26u
#define VELK2_ERR_SUB_COMMAND 27u
#define VELK2_ERR_UNEXPECTED_CHAR 28u
#define VELK2_ERR_INVALID_S_EXPRESSION 29u
#define VELK2_ERR_BUFFER_OVERFLOW 30u
#define VELK2_ERR_NOT_AUTHORIZED 31u
#define VELK2_ERR_HASH_MATCH 32u
#define VELK2_ERR_RANDOM_TOKEN 33u
#define VELK2_ERR_TIME_STAMP 34u
#define VELK2_ERR_AUTH_TAG_MISSING 35u
#define VELK2_ERR_SIGNING_CERT_ORDER 36u
#define VELK2_ERR_CONTAINING_DIR 37u
#define VELK2_ERR_PARAM_NULL 38u
#define VELK2_ERR_PARAM_NOT_NULL 39u
#define VELK2_ERR_ALL_USERS_DIR 40u
#define VELK2_ERROR_SUBJECT_FOUND 41u
#define VELK2_ERROR_FINDING_ISSUER 42u
#define VELK2_ERR_LOG_FILE_OPEN 43u
#define VELK2_ERR_ZERO_AUTH_MATCH 44u
#define VELK2_ERR_MULTI_AUTH_MATCH 45u
#define VELK2_ERR_ISSUER_SIGNER_MATCH 46u
#define VELK2_ERR_ISSUER_MISMATCH 47u
#define VELK2_ERR_PROPAGATE 48u
#define VELK2_ERR_NO_ISSUER_FOUND 49u
#define VELK2_ERR_SIGNER_AUTH_NARROWER 50u
#define VELK2_ERR_NOT_BEFORE 51u
#define VELK2_ERR_NOT_AFTER 52u
#define VELK2_ERR_NEEDS_MORE_SIGNING 53u
#define VELK2_ERR_ACL_ENTRY_NOT_FOUND 54u
#define VELK2_ERR_AUTH_NOT_SUBSET 55u
#define VELK2_ERR_MANIFEST_VERSION 56u
#define VELK2_ERR_MANIFEST_TYPE 57u
#define VELK2_ERR_NOT_BEFORE_AFTER 58u
#define VELK2_ERR_NO_REVOCATION_ACL 59u
#define VELK2_ERR_USER_INTERRUPT 60u
#define VELK2_ERR_NO_REVOCATION_SPEC 61u
#define VELK2_ERR_ACL_KEY_NOT_FOUND 62u
#define VELK2_ERR_AUTH_TAGS_ARE_EQUAL 63u
#define VELK2_ERR_INVALID_SEQUENCE 64u
#define VELK2_ERR_ALREADY_ISSUED_BY_KEY 65u
#define VELK2_ERR_CERT_REVOKED 66u
#define VELK2_ERR_NOT_GRANTED \
  67u /* "The specified package is not granted the specified authorization" */
#define VELK2_ERR_KEY_REVOKED 68u
#define VELK2_ERR_NOT_IN_LIST 69u
#define VELK2_ERR_INVALID_REVOCATION_TAG 70u
#define VELK2_ERR_NOT_OBJECT_CERT 71u
#define VELK2_ERR_INVALID_PASSPHRASE 72u
#define VELK2_ERR_CRL_NOT_FOUND 73u
#define VELK2_ERR_EXTRA_FILES 74u
#define VELK2_ERR_FAILURE 75u
#define VELK2_ERR_WRITE_FILE 76u
#define VELK2_MAX_ERROR 77u

/* Status bits of manifest entries. */
#define VELK2_ENTRY_VALID 1u
#define VELK2_ENTRY_INVALID 2u
#define VELK2_ENTRY_MISSING 4u
#define VELK2_ENTRY_EXTRA 8u

typedef struct Velk2Context Velk2Context;       /* opaque */
typedef struct ManifestContext ManifestContext; /* opaque */

/* One file name handed to a caller; lists are freed with FreeFileItemList. */
typedef struct FileItem {
  char16_t* wide_name;  /* owned */
  char16_t* wide_value; /* owned, may be NULL */
  char* name;           /* owned unless == wide_name */
  char* value;          /* owned unless == wide_value, may be NULL */
  struct FileItem* next;
  uint32_t size; /* sizeof(FileItem) */
  uint32_t is_directory;
} FileItem;

typedef struct Velk2CertRecord {
  uint32_t size;      /* sizeof(Velk2CertRecord) */
  void* sequence;     /* opaque */
  int64_t not_before; /* seconds since 1970 UTC, 0 = none */
  int64_t not_after;
  char* tag;
  char* owner;
  uint8_t* subject_key; /* DER SubjectPublicKeyInfo */
  uint32_t subject_key_length;
  char* hash;
  uint32_t hash_length;
  struct Velk2CertRecord* next;
  uint32_t reserved;
} Velk2CertRecord;

typedef struct Velk2CrlRecord {
  uint32_t size; /* sizeof(Velk2CrlRecord) */
  void* list;    /* opaque */
  int64_t not_before;
  int64_t not_after;
  char* tag;
  uint32_t reserved;
} Velk2CrlRecord;

/* ---- Frame ---------------------------------------------------------------- */

/* Velk2Init creates a context holding |word|, the crypto module's context value.
 * A null |context_out| is accepted and does nothing. 3 when out of memory. */
VELK2_EXPORT VELK2_RESULT Velk2Init(Velk2Context** context_out, uint32_t word);
/* Velk2FreeContext frees a context (NULL is harmless); every object made with it
 * must be released first. */
VELK2_EXPORT VELK2_RESULT Velk2FreeContext(Velk2Context* context);
/* Velk2HomeDirectory sets the home store root. A NULL path or one of 260 or more
 * units empties the root and returns 22. */
VELK2_EXPORT VELK2_RESULT Velk2HomeDirectory(const char16_t* path);
VELK2_EXPORT void Velk2HomeDirectoryA(const char* path);
/* Velk2GlobalDirectory sets the global store root, as Velk2HomeDirectory. */
VELK2_EXPORT VELK2_RESULT Velk2GlobalDirectory(const char16_t* path);
VELK2_EXPORT void Velk2GlobalDirectoryA(const char* path);
/* Velk2WideToAscii converts |length| UTF-16 units (-1: through the NUL) to a new
 * UTF-8 string; |out_length| receives its byte length without the NUL. */
VELK2_EXPORT char* Velk2WideToAscii(const char16_t* wide, int32_t length, uint32_t* out_length);
/* Velk2AsciiToWide converts |length| UTF-8 bytes (-1: through the NUL) to a new
 * UTF-16 string; |out_length| receives its length in units without the NUL. */
VELK2_EXPORT char16_t* Velk2AsciiToWide(const char* text, int32_t length, uint32_t* out_length);
/* Velk2Free releases memory that an export allocated for the caller. */
VELK2_EXPORT void Velk2Free(void* pointer);
VELK2_EXPORT uint32_t Velk2DoNothing(uint32_t value);
VELK2_EXPORT int32_t Velk2VersionNumber(void);
VELK2_EXPORT const char16_t* Velk2VersionExtra(void);
VELK2_EXPORT const char* Velk2VersionExtraA(void);
/* Velk2ErrorMessage returns the constant message of a result code, or
 * "VELK_UNKNOWN_ERROR" for any value outside 0..76. Never freed. */
VELK2_EXPORT const char16_t* Velk2ErrorMessage(VELK2_RESULT code);
/* Velk2ErrorMessageA is the UTF-8 twin of Velk2ErrorMessage. */
VELK2_EXPORT const char* Velk2ErrorMessageA(VELK2_RESULT code);
/* FreeFileItemList frees a file item list; returns the number of items freed. */
VELK2_EXPORT uint32_t FreeFileItemList(FileItem* list);

/* ---- Certificates --------------------------------------------------------- */

/* Velk2CertReadCtx reads a certificate file (a sequence of certificate,
 * signature and owner entries) into one record per entry, chained through
 * |next|; *out is NULL for a file without entries. 38 for a NULL out or path,
 * 2 when *out is not NULL, the path is empty or |context| is not a live
 * context; 7 when the file cannot be read; the reader's codes. Free the chain
 * with Velk2CertFree. */
VELK2_EXPORT VELK2_RESULT Velk2CertReadCtx(Velk2CertRecord** out, const char16_t* path,
                                           Velk2Context* context);
VELK2_EXPORT VELK2_RESULT Velk2CertReadCtxA(Velk2CertRecord** out, const char* path,
                                            Velk2Context* context);
VELK2_EXPORT VELK2_RESULT Velk2CertRead(Velk2CertRecord** out, const char16_t* path);
VELK2_EXPORT VELK2_RESULT Velk2CertReadA(Velk2CertRecord** out, const char* path);
/* Velk2CertFree frees a whole chain, given its first record. 38 for NULL. */
VELK2_EXPORT VELK2_RESULT Velk2CertFree(Velk2CertRecord* record);
/* Velk2CertVerify verifies the chain of |record|: every signature, the
 * revocation lists of the global store for the period (66 revoked, 73 when no
 * list speaks for a certificate that asks for one), then whether the ACL of
 * the global store grants the first certificate's subject |tag| (readable,
 * such as "(pkg install)") in the period; times are seconds since 1970 UTC,
 * 0 = not given. 38 for a NULL record or tag. */
VELK2_EXPORT VELK2_RESULT Velk2CertVerify(Velk2CertRecord* record, const char* tag,
                                          int64_t not_before, int64_t not_after);
VELK2_EXPORT VELK2_RESULT Velk2CertVerifyFile(const char16_t* path, const char* tag,
                                              int64_t not_before, int64_t not_after);
VELK2_EXPORT VELK2_RESULT Velk2CertVerifyFileA(const char* path, const char* tag,
                                               int64_t not_before, int64_t not_after);
/* CertFind lists the "*.cert" files (any case) of |directory|, or of the home
 * store's "cert" directory for NULL, as full paths in name order; NULL when
 * there are none. Free with FreeFileItemList. */
VELK2_EXPORT FileItem* CertFind(const char16_t* directory);
VELK2_EXPORT FileItem* CertFindA(const char* directory);

/* ---- Revocation lists ----------------------------------------------------- */

/* Velk2CrlRead reads a revocation-list file into a record. 38 for a NULL out
 * or path; 5 when the file is missing; 7 when it cannot be read; the reader's
 * codes. Free with Velk2CrlFree. */
VELK2_EXPORT VELK2_RESULT Velk2CrlRead(Velk2CrlRecord** out, const char16_t* path,
                                       Velk2Context* context);
VELK2_EXPORT VELK2_RESULT Velk2CrlReadA(Velk2CrlRecord** out, const char* path,
                                        Velk2Context* context);
/* Velk2CrlFindA finds the stored list of the global store whose tag is |tag|.
 * 54 when there is none. */
VELK2_EXPORT VELK2_RESULT Velk2CrlFindA(Velk2CrlRecord** out, const char* tag,
                                        Velk2Context* context);
/* Velk2CrlVerify verifies a list against the ACL of the global store: 35 when
 * a |tag| is given and the list has none, 31 when it differs; 54 when no ACL
 * entry with the list's tag names its issuer; 21 when the list was altered.
 * With both times given, 52 for a list that begins after |end| and 51 for one
 * that ended before |start|. */
VELK2_EXPORT VELK2_RESULT Velk2CrlVerify(Velk2CrlRecord* record, const char* tag, int64_t start,
                                         int64_t end);
VELK2_EXPORT VELK2_RESULT Velk2CrlVerifyFile(const char16_t* path, const char* tag, int64_t start,
                                             int64_t end, Velk2Context* context);
VELK2_EXPORT VELK2_RESULT Velk2CrlVerifyFileA(const char* path, const char* tag, int64_t start,
                                              int64_t end, Velk2Context* context);
/* Velk2CrlFree frees a record. 38 for NULL. */
VELK2_EXPORT VELK2_RESULT Velk2CrlFree(Velk2CrlRecord* record);
/* Velk2CrlImport imports the "*.crl" files of |directory| into the global
 * store: a list that verifies replaces the stored list of its tag unless that
 * one is current and lasts longer; a list whose period has not begun is never
 * imported. 73 when no list file reads; 0 (nothing done) when the ACL does not
 * load; else 0. */
VELK2_EXPORT VELK2_RESULT Velk2CrlImport(const char16_t* directory, Velk2Context* context);
VELK2_EXPORT VELK2_RESULT Velk2CrlImportA(const char* directory, Velk2Context* context);
VELK2_EXPORT VELK2_RESULT Velk2ImportCrls(const char16_t* directory);
VELK2_EXPORT VELK2_RESULT Velk2ImportCrlsA(const char* directory);

/* ---- Manifests ------------------------------------------------------------ */

/* CreateManifestContext makes the context of one package directory, one
 * manifest file and one required tag (readable, such as "(pkg install)").
 * 2 when |out| or *out is not as it should be (NULL, NULL on entry), or a path
 * or the tag is NULL; the tag reader's codes. Delete with
 * DeleteManifestContext. */
VELK2_EXPORT VELK2_RESULT CreateManifestContext(ManifestContext** out,
                                                const char16_t* package_directory,
                                                const char16_t* manifest_path, const char* tag);
VELK2_EXPORT VELK2_RESULT CreateManifestContextA(ManifestContext** out,
                                                 const char* package_directory,
                                                 const char* manifest_path, const char* tag);
/* DeleteManifestContext frees a context and its lists; NULL is ignored. */
VELK2_EXPORT VELK2_RESULT DeleteManifestContext(ManifestContext* context);
/* VerifyManifest reads and verifies the manifest (signatures; revocation of
 * every certificate of its chain by the global store's lists that the ACL
 * names and by the manifest's own lists, a revoked certificate or one that
 * asks for a list none clears being left out of the chain; authorization of
 * its signer for the tag under the global ACL and the extra ACL directory, in
 * the period given or at the time of signing; the digest of its body), then
 * compares it with the package directory: 22 when an entry is invalid, 5 when
 * one is missing, 74 when one is extra (0 unless FailOnExtraEntries), else 0.
 * An entry is compared with what it records, never by following a link: a
 * symlink entry with the link's target, a file with its content and, when the
 * manifest records them, its size, mode (setuid, setgid and sticky included)
 * and owner; entries that the ignore patterns recorded in the manifest match
 * are left out. Names are matched byte for byte (then without regard to
 * ASCII case); a list item's narrow name holds the path's bytes as on disk.
 * The four lists are emptied first, so after any failure of the manifest
 * itself they are empty, and refilled by the comparison. */
VELK2_EXPORT VELK2_RESULT VerifyManifest(ManifestContext* context, int64_t not_before,
                                         int64_t not_after);
/* CompareManifest compares the context's manifest with another (their digests
 * checked, not their signers); results are added to the lists. */
VELK2_EXPORT VELK2_RESULT CompareManifest(ManifestContext* context, const char16_t* other_manifest);
VELK2_EXPORT VELK2_RESULT CompareManifestA(ManifestContext* context, const char* other_manifest);
/* The result lists, owned by the context: valid until the next VerifyManifest
 * or DeleteManifestContext. Each item holds a path and is_directory. */
VELK2_EXPORT FileItem* GetValidEntries(ManifestContext* context);
VELK2_EXPORT FileItem* GetInvalidEntries(ManifestContext* context);
VELK2_EXPORT FileItem* GetMissingEntries(ManifestContext* context);
VELK2_EXPORT FileItem* GetExtraEntries(ManifestContext* context);
/* SetIgnoredEntries: paths, relative to the package, left out of every
 * comparison (the caller keeps its list); NULL clears. */
VELK2_EXPORT VELK2_RESULT SetIgnoredEntries(ManifestContext* context, const FileItem* list);
VELK2_EXPORT void FailOnExtraEntries(ManifestContext* context);
VELK2_EXPORT VELK2_RESULT SetExtraAclDirectory(ManifestContext* context, const char16_t* directory);
VELK2_EXPORT VELK2_RESULT SetExtraAclDirectoryA(ManifestContext* context, const char* directory);
/* SetHashThreads (an extension): |threads| hash files while VerifyManifest
 * walks the package (0: one per core, at most 64; the default is 1, the walk
 * hashing each file itself). The results, their order and the code are the
 * same for any number. */
VELK2_EXPORT VELK2_RESULT SetHashThreads(ManifestContext* context, uint32_t threads);
/* SetRollbackProtection (an extension; off by default, as VerifyManifest keeps
 * no state between calls): with VELK2_ROLLBACK_PROTECT, VerifyManifest refuses
 * with 34 (VELK2_ERR_TIME_STAMP) a manifest that verifies but whose time of
 * signing lies more than five minutes ahead of the clock, or before the newest
 * time of signing verified earlier for the same package (unless
 * VELK2_ROLLBACK_ALLOW_OLDER is set too); 10 when that package's record exists
 * but cannot be read. After a VerifyManifest that returns 0 it records the time
 * of signing, never backwards, in the global store's "rollback" directory,
 * written whole under the lock "cert/store.lock"; a store this process cannot
 * write is checked, not written, and that is no error. The same package is the
 * name that the manifest's signed header records (`velk2 manifest sign
 * --name`), or, for a manifest without one, the package directory's absolute
 * path. 0 turns it off; 2 for unknown flags or ALLOW_OLDER alone. */
#define VELK2_ROLLBACK_PROTECT 1u
#define VELK2_ROLLBACK_ALLOW_OLDER 2u
VELK2_EXPORT VELK2_RESULT SetRollbackProtection(ManifestContext* context, uint32_t flags);
/* SetScanPackageRoot (an extension; off by default, as designed): with |on|
 * nonzero, VerifyManifest reports unlisted entries in the package directory
 * itself too (but for the manifest file, when it lies there), not only in
 * the directories below it. */
VELK2_EXPORT VELK2_RESULT SetScanPackageRoot(ManifestContext* context, uint32_t on);
/* SetIncrementalCache (an extension; off by default, as VerifyManifest reads
 * every file): with |on| nonzero, VerifyManifest takes a regular file for
 * valid without reading it when the global store's "cache" directory holds
 * an entry, made by an earlier VerifyManifest of the same package directory
 * and manifest that returned 0, under which the file's device, inode, size,
 * modification and change times (in nanoseconds), mode and owner, and the
 * manifest entry it was checked against, are all unchanged, and the file was
 * not modified within two seconds of being read then. Every other file,
 * and every symlink, is read as without the cache. A directory below the
 * package whose every entry was a listed name is not listed again while its
 * device, inode, size, times, mode and owner, and the names its manifest
 * level lists, are unchanged (any entry added, removed or renamed changes
 * its times). After a VerifyManifest
 * that returns 0 the package's entries are written whole under the lock
 * "cert/store.lock"; the directory is made with mode 0700 and not used when
 * group or others may write it or another user owns it; a cache file that
 * is damaged or not this package's is ignored and rewritten. A cache that
 * cannot be read or written is no error. */
VELK2_EXPORT VELK2_RESULT SetIncrementalCache(ManifestContext* context, uint32_t on);
/* GetTimeOfSigning: the manifest's time of signing, 0 before one was read. */
VELK2_EXPORT int64_t GetTimeOfSigning(ManifestContext* context);

#ifdef __cplusplus
}
#endif

#endif /* VELK2_H */
