#include "platform/no_cancellation.h"

#include <pthread.h>

qor::platform::no_cancellation::no_cancellation() noexcept {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before);
}

qor::platform::no_cancellation::~no_cancellation() { pthread_setcancelstate(m_before, &m_before); }
