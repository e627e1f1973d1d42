#include "reset.h"

#include <winsock2.h>

void qor::test::reset(sockets::socket& connection) {
    const linger at_once{1, 0};
    setsockopt(static_cast<SOCKET>(connection.handle()), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once),
               sizeof at_once);
    connection = sockets::socket();
}
