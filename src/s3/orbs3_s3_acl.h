// The permissions an S3 access control list grants, as bits: the ACL documents name them, the bucket and
// object records store them.
#pragma once

#include <cstdint>
#include <string_view>

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

// The group grantees' URIs, as grant headers and ACL documents name them.
inline constexpr std::string_view ORBS3_ACL_ALL_USERS_URI = "http://acs.amazonaws.com/groups/global/AllUsers";
inline constexpr std::string_view ORBS3_ACL_AUTH_USERS_URI =
    "http://acs.amazonaws.com/groups/global/AuthenticatedUsers";

// What a request says of an object's or bucket's ACL in its headers: x-amz-acl, and the values of
// x-amz-grant-read, -write, -read-acp, -write-acp and -full-control (empty when absent).
struct orbs3_acl_headers_t {
    std::string_view canned;
    std::string_view read, write, read_acp, write_acp, full_control;
};

// The mask those headers give: 1 with *acl set, 0 when they give none, -1 for a canned name S3 does not
// know or a grantee list that does not parse (InvalidArgument), -2 for a canned ACL beside grant headers
// (InvalidRequest). Groups set their bits; grants to users set the permission bits and are not kept
// otherwise; without any user grant the owner keeps FULL_CONTROL, as with every canned ACL.
[[nodiscard]] int orbs3_acl_from_headers(const orbs3_acl_headers_t& h, uint32_t* acl);
