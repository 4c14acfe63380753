#pragma once
// Marks the symbols that libqvsqlite exports; everything else stays hidden.

#define QVSQLITE_API __attribute__((visibility("default")))
