// Where a service is, as one text: "example.org:https", "[fe80::1%eth0]:80", ":8080", "unix:/run/x.sock", "pipe:x".
// docs/listeners.md describes the forms.
#pragma once

#include "qor/glue/binding.h"
#include "qor/system/Network.h"
#include "qor/system/String.h"

// The ways to a service.
enum class qorServiceKind : uint32 {
    none = 0,
    tcp = 1,         // a host and a port
    unix_socket = 2, // a path
    pipe = 3,        // the name of a pipe of Windows
};

// A service. Two are equal if all members are.
struct qorServiceDescriptor {
    qorServiceKind kind = qorServiceKind::none; // the way to it

    // tcp: a name as it was written, or an address in the form of qorAddressToString; without brackets. Empty: none was
    // given. Who listens then means all addresses, who connects this host.
    qorString host;
    qorHostAddress address; // tcp: the host's, if it is given by one
    qorString service;      // tcp: the name of the service, if it was given instead of a port
    uint16 port = 0;        // tcp: also that of the name; 0 is for those who listen: any free port

    qorString path; // unix_socket: the path; pipe: the name, without "\\.\pipe\"

    bool operator==(const qorServiceDescriptor&) const noexcept = default;

    // Replaces the content of `out` by the text, which qorParseServiceDescriptor turns into an equal object. The text
    // is the shortest one: "tcp://" is left out where it is not needed. Empty for qorServiceKind::none.
    void GetText(qorString& out) const noexcept;
};

// What a text may leave out.
struct qorServiceDefaults {
    // The host of a text without one (":80"): a name or an address, an IPv6 address with or without brackets. Null: the
    // descriptor's host is empty then.
    const char* host = nullptr;
    // The port of a text without one ("example.org"), 0 to 65535; -1: such a text is an error.
    int32 port = -1;
};

// Takes a text apart. Nothing is looked up but names of services, in the system's table of TCP, and names of interfaces
// behind a '%'. Nothing is connected to. Returns false and leaves `out` unchanged if the text is not valid; the error
// says what is wrong and at which byte, from 1. Errors: qorError_descriptor_syntax, qorError_descriptor_without_port,
// qorError_descriptor_no_service (the table does not have the name), qorError_descriptor_scheme (neither tcp://, unix:
// nor pipe:), qorError_descriptor_too_long, qorError_descriptor_scope (there is no such interface), and
// qorError_invalid_argument for invalid defaults. Any thread.
[[nodiscard]] inline bool qorParseServiceDescriptor(const char* text, const qorServiceDefaults& defaults,
                                                    qorServiceDescriptor& out) noexcept {
    return qor::glue::qorParseServiceDescriptor(text, defaults, out);
}
// The same without defaults.
[[nodiscard]] inline bool qorParseServiceDescriptor(const char* text, qorServiceDescriptor& out) noexcept {
    return qor::glue::qorParseServiceDescriptor(text, {}, out);
}

inline void qorServiceDescriptor::GetText(qorString& out) const noexcept {
    qorString text;
    switch (kind) {
    case qorServiceKind::none:
        break;
    case qorServiceKind::unix_socket:
        text.Append("unix:");
        text.AppendString(path);
        break;
    case qorServiceKind::pipe:
        text.Append("pipe:");
        text.AppendString(path);
        break;
    case qorServiceKind::tcp:
        // "unix:80" is a path.
        if (host.CompareNoCase("unix") == 0 || host.CompareNoCase("pipe") == 0)
            text.Append("tcp://");
        if (address.family == qorAddressFamily::ipv6)
            text.AppendByte('[');
        text.AppendString(host);
        text.Append(address.family == qorAddressFamily::ipv6 ? "]:" : ":");
        if (service.IsEmpty()) {
            char digits[5];
            uint32 at = sizeof digits;
            uint32 left = port;
            do
                digits[--at] = static_cast<char>('0' + left % 10);
            while ((left /= 10) != 0);
            text.Append(digits + at, static_cast<int32>(sizeof digits - at));
        } else {
            text.AppendString(service);
        }
        break;
    }
    out = text;
}
