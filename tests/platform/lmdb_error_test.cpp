#include <gtest/gtest.h>
#include <lmdb.h>

#include <cerrno>

#include "store/lmdb/error.h"

namespace tkv::store {
namespace {

struct Row {
  int code;
  int error_number;  // errno as the call left it
  prtkv_result result;
  const char* text;  // part of the message
};

constexpr Row kRows[] = {
    {MDB_SUCCESS, 0, PRTKV_DONE, ""},
    {MDB_NOTFOUND, 0, PRTKV_NO_SUCH_KEY, ""},
    {MDB_KEYEXIST, 0, PRTKV_KEY_EXISTS, ""},
    {EIO, EIO, PRTKV_STORAGE_FAILED, "Input/output error"},
    {EIO, 0, PRTKV_STORAGE_FULL, "no space left on the device"},
    {ENOSPC, 0, PRTKV_STORAGE_FULL, "No space left on device"},
    {EDQUOT, 0, PRTKV_STORAGE_FULL, "quota exceeded"},
    {EFBIG, 0, PRTKV_STORAGE_FULL, "File too large"},
    {MDB_MAP_FULL, 0, PRTKV_STORAGE_FULL, "has reached its size limit; raise `map_size`"},
    {ENOMEM, 0, PRTKV_OUT_OF_MEMORY, "Cannot allocate memory"},
    {EACCES, 0, PRTKV_ACCESS_DENIED, "Permission denied"},
    {EPERM, 0, PRTKV_ACCESS_DENIED, "not permitted"},
    {EROFS, 0, PRTKV_ACCESS_DENIED, "Read-only"},
    {MDB_INVALID, 0, PRTKV_STORAGE_FAILED, "not the data file of a registry"},
    {MDB_CORRUPTED, 0, PRTKV_STORAGE_FAILED, "damaged"},
    {MDB_PAGE_NOTFOUND, 0, PRTKV_STORAGE_FAILED, "damaged"},
    {MDB_PANIC, 0, PRTKV_STORAGE_FAILED, "an earlier write failed"},
    {EBADMSG, 0, PRTKV_STORAGE_FAILED, "Bad message"},
    {EUCLEAN, 0, PRTKV_STORAGE_FAILED, "needs cleaning"},
    {ENXIO, 0, PRTKV_STORAGE_FAILED, "No such device or address"},
    {MDB_VERSION_MISMATCH, 0, PRTKV_UNUSABLE, "another version of LMDB; use the release of TKV that created it"},
    {ENOENT, 0, PRTKV_UNUSABLE, "No such file"},
    {ENOTDIR, 0, PRTKV_UNUSABLE, "Not a directory"},
    {EISDIR, 0, PRTKV_UNUSABLE, "Is a directory"},
    {ELOOP, 0, PRTKV_UNUSABLE, "symbolic links"},
    {ENAMETOOLONG, 0, PRTKV_UNUSABLE, "too long"},
    {ENODEV, 0, PRTKV_UNUSABLE, "No such device"},
    {ESTALE, 0, PRTKV_UNUSABLE, "Stale"},
    {EOPNOTSUPP, 0, PRTKV_UNUSABLE, "not supported"},
    {MDB_READERS_FULL, 0, PRTKV_BUSY, "all 1022 reader slots"},
    {MDB_MAP_RESIZED, 0, PRTKV_BUSY, "grew while it was being read"},
    {EMFILE, 0, PRTKV_BUSY, "Too many open files"},
    {ENFILE, 0, PRTKV_BUSY, "Too many open files in system"},
    {EAGAIN, 0, PRTKV_UNUSABLE, "another PID namespace"},
    {EBUSY, 0, PRTKV_BUSY, "busy"},
    {EINTR, 0, PRTKV_BUSY, "Interrupted"},
    {ETIMEDOUT, 0, PRTKV_BUSY, "timed out"},
    {MDB_BAD_TXN, 0, PRTKV_UNKNOWN, "(-30782)"},
    {EINVAL, 0, PRTKV_UNKNOWN, "(22)"},
    {-12345, 0, PRTKV_UNKNOWN, "(-12345)"},
};

class LmdbError : public ::testing::TestWithParam<Row> {};

TEST_P(LmdbError, HasItsResultAndMessage) {
  const Row& row = GetParam();
  const Status status = lmdb_status(LmdbOutcome{row.code, row.error_number}, "cannot do it");
  EXPECT_EQ(status.code(), row.result);
  EXPECT_NE(status.text().find(row.text), std::string::npos) << status.text();
  if (status.has_text()) {
    EXPECT_EQ(status.text().rfind("cannot do it: ", 0), 0u) << status.text();
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, LmdbError, ::testing::ValuesIn(kRows));

TEST(LmdbErrorOfAReadingCall, IsNotMistakenForAFullDisk) {
  EXPECT_TRUE(lmdb_status(EIO, "cannot read").is(PRTKV_STORAGE_FAILED));
}

TEST(LmdbErrorOutcome, KeepsErrnoAsTheCallLeftIt) {
  errno = EPERM;
  EXPECT_EQ(lmdb_outcome([] { return EIO; }).error_number, 0);
  EXPECT_EQ(lmdb_outcome([] { return errno = EIO; }).error_number, EIO);
}

}  // namespace
}  // namespace tkv::store
