// What a failed request to etcd means: the one place where gRPC's codes and etcd's messages are told apart.
#ifndef TKV_PLATFORM_STORE_ETCD_JUDGEMENT_H
#define TKV_PLATFORM_STORE_ETCD_JUDGEMENT_H

#include <string>

#include "base/status.h"

namespace tkv::store::etcd {

enum class Verdict {
  kDone,            // no failure
  kTryElsewhere,    // this member cannot answer now; another, or this one a little later, may
  kRenewToken,      // the login has expired: log in again and repeat
  kCompacted,       // the state that was asked for is no longer kept
  kAnswerTooLarge,  // the answer is over what this side receives: ask for less
  kFinal            // repeating does not help
};

struct Judgement {
  Verdict verdict = Verdict::kDone;
  Status status;            // never success unless the verdict is kDone
  bool never_sent = false;  // the request certainly did not reach a server
  bool hopeless = false;    // of this member: trying it again within the same operation does not help
};

// Judges a gRPC status by its number and message. The message decides where etcd uses one code for several
// conditions; an unknown code keeps its number in the text.
Judgement judge(int grpc_code, const std::string& message);

}  // namespace tkv::store::etcd

#endif
