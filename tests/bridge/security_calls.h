/* The calls of the security resolution, which every creating method makes in the middle of its own. */
#ifndef TKV_TESTS_BRIDGE_SECURITY_CALLS_H
#define TKV_TESTS_BRIDGE_SECURITY_CALLS_H

#include <string>

#include "bridge_test.h"

namespace bridge_test {

/* The security type's opening trace. */
Call fill_trace(int type);

/* A user-name argument of which the native text is the same. */
Calls user_given(int type, const std::string& user);

Calls group_given(int type, const std::string& group);

Call no_group_given();

/* Security type 1 with a user; the group only when one is given. */
Calls resolves_type1(const std::string& user, const std::string& group = "");

/* Security type 3 with only a parent's name: the session's user and group. */
Calls resolves_type3(const std::string& parent);

/* The records of resolves_type1 and resolves_type3. */
sec_attr type1_record(const std::string& user, const std::string& group = "");
sec_attr type3_record();

/* The record with which a key is first created when its group is not the session's. */
sec_attr first_step(const sec_attr& record, const std::string& user = kUser, const std::string& group = kGroup);

/* A resolution that fails and has reported it: type 1 without a user name, result 4. */
Calls type1_without_user();

/* A resolution that fails because the user name cannot be converted, result 0. */
Calls type5_with_unconvertible_user(const std::string& user);

}  // namespace bridge_test

#endif
