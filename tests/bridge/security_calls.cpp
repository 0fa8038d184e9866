#include "security_calls.h"

namespace bridge_test {

Call fill_trace(int type) { return trace("fill_sec_attr: secType = " + std::to_string(type)); }

Calls user_given(int type, const std::string& user) {
  return {
      native_string(user, user),
      trace("fill_sec_attr: native user name=" + user + " rc=0"),
      trace("fill_sec_attr: secType = " + std::to_string(type) + ", velmar_user = [" + user + "]"),
  };
}

Calls group_given(int type, const std::string& group) {
  return {
      native_string(group, group),
      trace("fill_sec_attr: native group name=" + group + " rc=0"),
      trace("fill_sec_attr: secType = " + std::to_string(type) + ", group_name = [" + group + "]"),
  };
}

Call no_group_given() { return trace("fill_sec_attr: group name passed was null"); }

Calls resolves_type1(const std::string& user, const std::string& group) {
  return {
      fill_trace(1),
      user_given(1, user),
      group.empty() ? Calls(no_group_given()) : group_given(1, group),
  };
}

Calls resolves_type3(const std::string& parent) {
  return {fill_trace(3), takes(parent), no_group_given(), releases(parent)};
}

sec_attr type1_record(const std::string& user, const std::string& group) { return owned(0x3f, 0x34, 0x3, user, group); }
sec_attr type3_record() { return owned(0x3f, 0x3f, 0x3, kUser, kGroup); }

sec_attr first_step(const sec_attr& record, const std::string& user, const std::string& group) {
  return owned(record.user_perm, record.group_perm, record.other_perm, user, group);
}

Calls type1_without_user() {
  return {fill_trace(1), reports(0), trace("fill_sec_attr: velmar user name found was null")};
}

Calls type5_with_unconvertible_user(const std::string& user) {
  return {
      fill_trace(5),
      native_string(user, "").returns(-1),
      trace("fill_sec_attr: native user name= rc=-1"),
      reports(0),
  };
}

}  // namespace bridge_test
