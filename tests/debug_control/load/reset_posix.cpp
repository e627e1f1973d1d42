#include "reset.h"

#include <sys/socket.h>

void qor::test::reset(sockets::socket& connection) {
    const linger at_once{1, 0};
    setsockopt(static_cast<int>(connection.handle()), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    connection = sockets::socket();
}
