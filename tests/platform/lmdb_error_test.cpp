#include "lmdb_error.h"

#include <gtest/gtest.h>
#include <lmdb.h>

#include <cerrno>

namespace tkv::store {
namespace {

struct Row {
  int code;
  DiskRoom room;
  prtkv_result result;
  const char* text;  // a part of the text
};

constexpr Row kRows[] = {
    {MDB_SUCCESS, DiskRoom::kLeft, PRTKV_DONE, ""},
    {MDB_NOTFOUND, DiskRoom::kLeft, PRTKV_NO_SUCH_KEY, ""},
    {MDB_KEYEXIST, DiskRoom::kLeft, PRTKV_KEY_EXISTS, ""},
    {EIO, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "Input/output error"},
    {EIO, DiskRoom::kExhausted, PRTKV_STORAGE_FULL, "no space left on the device"},
    {ENOSPC, DiskRoom::kLeft, PRTKV_STORAGE_FULL, "No space left on device"},
    {EDQUOT, DiskRoom::kLeft, PRTKV_STORAGE_FULL, "quota exceeded"},
    {EFBIG, DiskRoom::kLeft, PRTKV_STORAGE_FULL, "File too large"},
    {MDB_MAP_FULL, DiskRoom::kLeft, PRTKV_STORAGE_FULL, "has grown to the size"},
    {ENOMEM, DiskRoom::kLeft, PRTKV_OUT_OF_MEMORY, "Cannot allocate memory"},
    {EACCES, DiskRoom::kLeft, PRTKV_ACCESS_DENIED, "Permission denied"},
    {EPERM, DiskRoom::kLeft, PRTKV_ACCESS_DENIED, "not permitted"},
    {EROFS, DiskRoom::kLeft, PRTKV_ACCESS_DENIED, "Read-only"},
    {MDB_INVALID, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "not a file of a registry"},
    {MDB_VERSION_MISMATCH, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "another version of LMDB"},
    {MDB_CORRUPTED, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "damaged"},
    {MDB_PAGE_NOTFOUND, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "damaged"},
    {MDB_PANIC, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "an earlier write failed"},
    {MDB_READERS_FULL, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "too many"},
    {MDB_BAD_TXN, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "(-30782)"},
    {EINVAL, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "(22)"},
    {ENOENT, DiskRoom::kExhausted, PRTKV_STORAGE_FAILED, "No such file"},
    {-12345, DiskRoom::kLeft, PRTKV_STORAGE_FAILED, "(-12345)"},
};

class LmdbError : public ::testing::TestWithParam<Row> {};

TEST_P(LmdbError, BecomesTheRegistrysResult) {
  const Row& row = GetParam();
  const Status status = lmdb_status(row.code, "cannot do it", row.room);
  EXPECT_EQ(status.code(), row.result);
  EXPECT_NE(status.text().find(row.text), std::string::npos) << status.text();
  if (status.has_text()) {
    EXPECT_EQ(status.text().rfind("cannot do it: ", 0), 0u) << status.text();
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, LmdbError, ::testing::ValuesIn(kRows));

TEST(LmdbErrorRoom, ADiskThatTakesAWriteHasRoom) { EXPECT_EQ(disk_room(testing::TempDir().c_str()), DiskRoom::kLeft); }

TEST(LmdbErrorRoom, WhatCannotBeAskedIsNotTakenForFull) { EXPECT_EQ(disk_room("/no/such/directory"), DiskRoom::kLeft); }

}  // namespace
}  // namespace tkv::store
