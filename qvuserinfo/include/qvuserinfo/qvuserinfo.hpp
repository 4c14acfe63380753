#pragma once
// The user information service's exported interface. For now it only holds the export marker:
// everything else in libqvuserinfo is internal and hidden.

// libqvuserinfo is built with hidden visibility; this marks what it exports.
#define QVUSERINFO_API __attribute__((visibility("default")))
