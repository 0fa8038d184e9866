#include "store/etcd/judgement.h"

#include <string_view>

namespace tkv::store::etcd {
namespace {

bool contains(const std::string& message, std::string_view part) { return message.find(part) != std::string::npos; }

// gRPC wraps the reason of a failed connection in two messages of its own.
std::string innermost(const std::string& message) {
  constexpr std::string_view kBefore = "last error: ";
  const auto at = message.rfind(kBefore);
  return at == std::string::npos ? message : message.substr(at + kBefore.size());
}

// Why TLS refused the server, or null if the reason is another one.
const char* tls_complaint(const std::string& reason) {
  if (contains(reason, "CERTIFICATE_VERIFY_FAILED") || contains(reason, "certificate verify failed")) {
    return "the server's certificate is not trusted; see `ca`";
  }
  if (contains(reason, "Hostname Verification Check failed") || contains(reason, "Peer name")) {
    return "the server's certificate is for another host; see `location`";
  }
  if (contains(reason, "WRONG_VERSION_NUMBER") || contains(reason, "wrong version number")) {
    return "the server does not speak TLS; see `ca`";
  }
  return nullptr;
}

bool is_connection_failure(const std::string& message) {
  return contains(message, "failed to connect") || contains(message, "DNS resolution failed") ||
         contains(message, "empty address list");
}

Judgement elsewhere(std::string reason) {
  return {Verdict::kTryElsewhere, Status(PRTKV_UNREACHABLE, std::move(reason))};
}

Judgement no_answer() {
  Judgement judgement = elsewhere("no answer in time");
  judgement.timed_out = true;
  return judgement;
}

Judgement final(prtkv_result code, std::string text) { return {Verdict::kFinal, Status(code, std::move(text))}; }

Judgement unavailable(const std::string& message) {
  const std::string reason = innermost(message);
  const char* const complaint = tls_complaint(reason);
  Judgement judgement = elsewhere(complaint == nullptr ? reason : complaint + (" (" + reason + ")"));
  judgement.never_sent = is_connection_failure(message);
  judgement.hopeless = complaint != nullptr;
  judgement.broken_off = contains(message, "ocket closed") || contains(message, "Endpoint read failed") ||
                         contains(message, "reset by peer");
  return judgement;
}

Judgement invalid_argument(const std::string& message) {
  if (contains(message, "request is too large")) {
    return final(PRTKV_VALUE_TOO_LARGE, "etcd refused the size of the request: " + message);
  }
  if (contains(message, "too many operations")) {
    return final(PRTKV_INVALID_ARGUMENT, "etcd takes fewer operations in one transaction than needed: " + message);
  }
  if (contains(message, "authentication failed")) {
    return final(PRTKV_ACCESS_DENIED, "etcd refused user or password (see `user` and `password_file`): " + message);
  }
  if (contains(message, "user name is empty")) {
    return final(PRTKV_ACCESS_DENIED,
                 "etcd requires a user and none is configured (set `user` and `password_file`): " + message);
  }
  if (contains(message, "revision of auth store is old")) {
    return {Verdict::kRenewToken, Status(PRTKV_ACCESS_DENIED, message)};
  }
  return final(PRTKV_UNUSABLE, "etcd refused the request: " + message);
}

Judgement resource_exhausted(const std::string& message) {
  if (contains(message, "database space exceeded")) {
    return final(
        PRTKV_STORAGE_FULL,
        "etcd's space alarm is raised. Delete what is not needed with 'tkv rm', as root or in parts of up to a hundred "
        "keys; then run 'etcdctl endpoint status --write-out=fields' for the REVISION, 'etcdctl compaction REVISION', "
        "'etcdctl defrag' and 'etcdctl alarm disarm': " +
            message);
  }
  if (contains(message, "larger than max")) {
    return {Verdict::kAnswerTooLarge, Status(PRTKV_UNUSABLE, "an answer of etcd is too large: " + message)};
  }
  return elsewhere(message);
}

Judgement out_of_range(const std::string& message) {
  if (contains(message, "has been compacted")) {
    return {Verdict::kCompacted,
            Status(PRTKV_BUSY, "etcd compacted the state that was being read; keep a longer history there")};
  }
  return elsewhere(message);
}

}  // namespace

Judgement judge(int grpc_code, const std::string& message) {
  switch (grpc_code) {
    case 0:  // OK
      return {};
    case 1:   // CANCELLED
    case 2:   // UNKNOWN: members that stop say so in words of their own
    case 10:  // ABORTED
    case 13:  // INTERNAL
      return elsewhere(message);
    case 3:  // INVALID_ARGUMENT
      return invalid_argument(message);
    case 4:  // DEADLINE_EXCEEDED
      return no_answer();
    case 5:  // NOT_FOUND
      return final(PRTKV_UNUSABLE, "etcd does not know what was asked for: " + message);
    case 7:  // PERMISSION_DENIED
      return final(
          PRTKV_ACCESS_DENIED,
          "the configured etcd user has no permission on the registry's keys (see 'etcdctl role grant-permission'): " +
              message);
    case 8:  // RESOURCE_EXHAUSTED
      return resource_exhausted(message);
    case 9:  // FAILED_PRECONDITION
      if (contains(message, "authentication is not enabled")) {
        return final(PRTKV_INVALID_CONFIGURATION,
                     "a user is configured but etcd has authentication switched off; remove `user` and "
                     "`password_file`, or type: "
                     "etcdctl auth enable");
      }
      return final(PRTKV_UNUSABLE, "etcd refused the request: " + message);
    case 11:  // OUT_OF_RANGE
      return out_of_range(message);
    case 12:  // UNIMPLEMENTED
      return elsewhere("the server lacks what the registry needs of etcd 3.4 or later: " + message);
    case 14:  // UNAVAILABLE
      return unavailable(message);
    case 15:  // DATA_LOSS
      return final(PRTKV_STORAGE_FAILED, "etcd reports damaged data: " + message);
    case 16:  // UNAUTHENTICATED
      return {Verdict::kRenewToken, Status(PRTKV_ACCESS_DENIED, "etcd refused the login: " + message)};
    default:
      return final(PRTKV_UNKNOWN, "etcd answered with code " + std::to_string(grpc_code) + ": " + message);
  }
}

}  // namespace tkv::store::etcd
