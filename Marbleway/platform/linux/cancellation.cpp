#include "Marbleway/platform/cancellation.h"

#include <pthread.h>

namespace marbleway::platform {

CancellationDeferred::CancellationDeferred() {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &former_);
}

CancellationDeferred::~CancellationDeferred() { pthread_setcancelstate(former_, nullptr); }

}  // namespace marbleway::platform
