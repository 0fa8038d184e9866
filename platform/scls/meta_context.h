// Meta contexts of scls that use a name service of the caller's choice.
#ifndef TKV_PLATFORM_SCLS_META_CONTEXT_H
#define TKV_PLATFORM_SCLS_META_CONTEXT_H

#include "base/name_service.h"

namespace tkv::scls {

// As scls_meta_ctx_init, but the context queries `service`, which must outlive it.
void prepare_meta_context(void* meta, const NameService& service);

}  // namespace tkv::scls

#endif
