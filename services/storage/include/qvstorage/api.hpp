#pragma once
// Marks the symbols that libqvstorage exports; everything else stays hidden.

#define QVSTORAGE_API __attribute__((visibility("default")))
