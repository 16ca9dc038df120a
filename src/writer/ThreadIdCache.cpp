#include "log/WriteLog.h"

namespace PF::Utils::LOG::detail {

// Zero until the thread writes its first record; gettid runs once per thread.
__thread unsigned int tCachedThreadId = 0;

}  // namespace PF::Utils::LOG::detail
