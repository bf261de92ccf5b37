// The permissions an S3 access control list grants, as bits: the ACL documents name them, the bucket and
// object records store them.
#pragma once

#include <cstdint>

// One hexadecimal digit each; a record stores the sum as a decimal number.
inline constexpr uint32_t ORBS3_ACL_FULL_CONTROL = 0x1;
inline constexpr uint32_t ORBS3_ACL_READ = 0x10;
inline constexpr uint32_t ORBS3_ACL_WRITE = 0x100;
inline constexpr uint32_t ORBS3_ACL_READ_ACP = 0x1000;
inline constexpr uint32_t ORBS3_ACL_WRITE_ACP = 0x10000;
