// Inside the POSIX half of the library: addresses in the system's form.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include "net/socket_address.h"
