// What a failed request to etcd means: the one place that interprets gRPC's status codes and etcd's messages.
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
  bool timed_out = false;   // there was no answer
  bool broken_off = false;  // the server closed the connection
};

// Judges a gRPC status. The code decides; the message, which differs between releases, is looked at only where etcd
// uses one code for several conditions. A message that is not recognized gets the judgement that is safe for the code,
// and an unknown code keeps its number in the text.
Judgement judge(int grpc_code, const std::string& message);

}  // namespace tkv::store::etcd

#endif
