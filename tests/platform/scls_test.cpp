#include "scls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "scls/meta_context.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using tkv::NameService;

// What the injected name service answers: errno values in turn, then a name (null: no entry).
struct Answers {
  std::vector<int> first;
  int last = 0;
  const char* name = nullptr;
  std::size_t needed = 0;  // buffers smaller than this get ERANGE
  int calls = 0;
};

Answers answers;

template <typename Entry>
int answer(Entry* entry, char* Entry::*field, char* buffer, std::size_t size, Entry** result) {
  *result = nullptr;
  const auto call = static_cast<std::size_t>(answers.calls++);
  if (call < answers.first.size()) return answers.first[call];
  if (size < answers.needed) return ERANGE;
  if (answers.name == nullptr) return answers.last;
  std::strncpy(buffer, answers.name, size - 1);
  entry->*field = buffer;
  *result = entry;
  return answers.last;
}

NameService scripted_service() {
  NameService service;
  service.effective_user = [] { return uid_t{4711}; };
  service.effective_group = [] { return gid_t{815}; };
  service.user_by_id = [](uid_t id, passwd* entry, char* buffer, std::size_t size, passwd** result) {
    EXPECT_EQ(id, 4711U);
    return answer(entry, &passwd::pw_name, buffer, size, result);
  };
  service.group_by_id = [](gid_t id, group* entry, char* buffer, std::size_t size, group** result) {
    EXPECT_EQ(id, 815U);
    return answer(entry, &group::gr_name, buffer, size, result);
  };
  return service;
}

const NameService scripted = scripted_service();

class Scls : public testing::Test {
 protected:
  Scls() : meta_(scls_meta_query_size(SCLS_META_VERSION)) {
    answers = {};
    tkv::scls::prepare_meta_context(meta_.data(), scripted);
    std::memset(name_, 'x', sizeof(name_));
    std::memset(&error_, 0x5A, sizeof(error_));
  }

  std::int32_t user(std::uint64_t capacity = sizeof(name_)) {
    return scls_idq_get_user_name(meta_.data(), &error_, 0, name_, capacity, &length_);
  }
  std::int32_t group(std::uint64_t capacity = sizeof(name_)) {
    return scls_idq_get_primary_privgrp_name(meta_.data(), &error_, 0, name_, capacity, &length_);
  }

  std::vector<char> meta_;
  scls_error error_;
  char name_[64];
  std::uint64_t length_ = 99;
};

TEST_F(Scls, GivesTheNamesOfTheEffectiveUserAndGroup) {
  ASSERT_EQ(scls_meta_ctx_init(meta_.data(), &error_, 0), SCLS_DONE);
  ASSERT_EQ(user(), SCLS_DONE);
  EXPECT_STREQ(name_, getpwuid(geteuid())->pw_name);
  EXPECT_EQ(length_, std::strlen(name_));
  EXPECT_EQ(error_.code, SCLS_DONE);
  EXPECT_STREQ(error_.text, "");
  ASSERT_EQ(group(), SCLS_DONE);
  EXPECT_STREQ(name_, getgrgid(getegid())->gr_name);
  EXPECT_EQ(length_, std::strlen(name_));
}

TEST_F(Scls, KnowsTheSizeOfItsOwnVersionOnly) {
  EXPECT_GT(scls_meta_query_size(SCLS_META_VERSION), 0U);
  for (const int version : {0, 2, -1, INT32_MAX}) EXPECT_EQ(scls_meta_query_size(version), 0U);
}

TEST_F(Scls, AsksAgainWithLargerBuffersAndWhenInterrupted) {
  answers.first = {EINTR, EINTR};
  answers.needed = 100000;
  answers.name = "carla";
  EXPECT_EQ(user(), SCLS_DONE);
  EXPECT_STREQ(name_, "carla");
  EXPECT_GT(answers.calls, 5);
  answers.calls = 0;
  EXPECT_EQ(group(), SCLS_DONE);
  EXPECT_STREQ(name_, "carla");
}

TEST_F(Scls, FailsForAnEntryThatNoBufferHolds) {
  answers.needed = SIZE_MAX;
  EXPECT_EQ(user(), SCLS_SYSTEM_FAILED);
  EXPECT_EQ(error_.system_errno, ERANGE);
}

TEST_F(Scls, TakesANameThatFillsTheBufferButForItsNul) {
  const std::string longest(63, 'u');
  answers.name = longest.c_str();
  EXPECT_EQ(user(), SCLS_DONE);
  EXPECT_EQ(std::string(name_), longest);
  EXPECT_EQ(length_, 63U);
}

TEST_F(Scls, RefusesANameThatDoesNotFitAndTellsItsLength) {
  const std::string too_long(64, 'u');
  answers.name = too_long.c_str();
  EXPECT_EQ(user(), SCLS_NAME_TOO_LONG);
  EXPECT_EQ(length_, 64U);
  EXPECT_EQ(name_[0], 'x');
  EXPECT_EQ(error_.code, SCLS_NAME_TOO_LONG);
  EXPECT_THAT(error_.text, HasSubstr("64"));
  answers.name = "ab";
  for (const std::uint64_t capacity : {0U, 1U, 2U}) EXPECT_EQ(group(capacity), SCLS_NAME_TOO_LONG);
  EXPECT_EQ(group(3), SCLS_DONE);
}

TEST_F(Scls, ReportsTheNameServicesFailure) {
  for (const int code : {EIO, EMFILE, ENFILE, ENOMEM}) {
    answers.last = code;
    EXPECT_EQ(user(), SCLS_SYSTEM_FAILED);
    EXPECT_EQ(error_.code, SCLS_SYSTEM_FAILED);
    EXPECT_EQ(error_.system_errno, code);
    EXPECT_THAT(error_.text, AllOf(HasSubstr("4711"), HasSubstr(std::strerror(code))));
    EXPECT_EQ(group(), SCLS_SYSTEM_FAILED);
    EXPECT_EQ(error_.system_errno, code);
    EXPECT_THAT(error_.text, AllOf(HasSubstr("815"), HasSubstr(std::strerror(code))));
  }
  EXPECT_EQ(name_[0], 'x');
}

TEST_F(Scls, IdentifiesAUserOrGroupWithoutANameByItsNumber) {
  for (const int code : {0, ENOENT, ESRCH, EBADF, EPERM}) {
    answers.last = code;
    EXPECT_EQ(user(), SCLS_DONE);
    EXPECT_STREQ(name_, "4711");
    EXPECT_EQ(length_, 4U);
    EXPECT_EQ(group(), SCLS_DONE);
    EXPECT_STREQ(name_, "815");
    EXPECT_EQ(length_, 3U);
    EXPECT_EQ(error_.code, SCLS_DONE);
  }
  answers.last = 0;
  answers.name = "";
  EXPECT_EQ(group(), SCLS_DONE);
  EXPECT_STREQ(name_, "815");
}

TEST_F(Scls, RefusesArgumentsThatItCannotUse) {
  std::vector<char> blank(meta_.size());
  EXPECT_EQ(scls_meta_ctx_init(nullptr, &error_, 0), SCLS_INVALID_ARGUMENT);
  EXPECT_EQ(error_.code, SCLS_INVALID_ARGUMENT);
  EXPECT_EQ(scls_meta_ctx_init(blank.data(), &error_, 1), SCLS_INVALID_ARGUMENT);
  for (const auto query : {scls_idq_get_user_name, scls_idq_get_primary_privgrp_name}) {
    EXPECT_EQ(query(nullptr, &error_, 0, name_, 64, &length_), SCLS_INVALID_ARGUMENT);
    EXPECT_EQ(query(blank.data(), &error_, 0, name_, 64, &length_), SCLS_INVALID_ARGUMENT);
    EXPECT_EQ(query(meta_.data(), &error_, 1, name_, 64, &length_), SCLS_INVALID_ARGUMENT);
    EXPECT_EQ(query(meta_.data(), &error_, 0, nullptr, 64, &length_), SCLS_INVALID_ARGUMENT);
    EXPECT_EQ(query(meta_.data(), &error_, 0, name_, 64, nullptr), SCLS_INVALID_ARGUMENT);
    EXPECT_NE(std::string(error_.text), "");
  }
  EXPECT_EQ(answers.calls, 0);
}

TEST_F(Scls, WorksWithoutAnErrorRecord) {
  answers.name = "carla";
  EXPECT_EQ(scls_idq_get_user_name(meta_.data(), nullptr, 0, name_, 64, &length_), SCLS_DONE);
  EXPECT_EQ(scls_idq_get_user_name(meta_.data(), nullptr, 0, name_, 2, &length_), SCLS_NAME_TOO_LONG);
  EXPECT_EQ(scls_meta_ctx_init(nullptr, nullptr, 0), SCLS_INVALID_ARGUMENT);
}

}  // namespace
