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

// The groups S3 grants to, as further digits of the same mask: what canned ACLs such as public-read give.
// The grants to users are not kept (the users of a tenant share its buckets); these decide what a
// request without credentials may do.
inline constexpr uint32_t ORBS3_ACL_ALL_USERS_READ = 0x100000;
inline constexpr uint32_t ORBS3_ACL_ALL_USERS_WRITE = 0x1000000;
inline constexpr uint32_t ORBS3_ACL_AUTH_USERS_READ = 0x10000000;
