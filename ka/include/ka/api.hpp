#pragma once
// Marks the symbols that libka exports; everything else stays hidden.
#define KA_API __attribute__((visibility("default")))
