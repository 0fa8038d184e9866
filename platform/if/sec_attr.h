/* The security attribute record: who owns a key and what owner, group and others may do with it.
 *
 * The record is passed by pointer and by value between the bridge and the registry client, so its layout is fixed: 140
 * bytes, no padding, integers in the machine's byte order. Zero-fill a record before setting its fields. Names are in
 * the native character set. A name of exactly 64 bytes has no terminating NUL: compare and copy names within
 * TKV_NAME_SIZE bytes.
 */
#ifndef TKV_PLATFORM_SEC_ATTR_H
#define TKV_PLATFORM_SEC_ATTR_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

enum { TKV_NAME_SIZE = 64 };

/* Rights, or-ed together in the three masks of a record. */
enum {
  TKV_RIGHT_READ = 0x01,     /* read the value and the security record */
  TKV_RIGHT_LIST = 0x02,     /* list the subkeys */
  TKV_RIGHT_WRITE = 0x04,    /* write the value */
  TKV_RIGHT_SECURITY = 0x08, /* change the security record */
  TKV_RIGHT_CREATE = 0x10,   /* create subkeys, receive a moved key */
  TKV_RIGHT_DELETE = 0x20,   /* delete or move the key */
  TKV_RIGHT_ALL = 0x3f
};

typedef struct sec_attr {
  int32_t user_perm;              /* rights of the owning user */
  int32_t group_perm;             /* rights of the owning group */
  int32_t other_perm;             /* rights of everybody else */
  char user_name[TKV_NAME_SIZE];  /* owning user; empty if there is none */
  char group_name[TKV_NAME_SIZE]; /* owning group; empty if there is none */
} sec_attr;

static_assert(sizeof(sec_attr) == 140, "the record is 140 bytes without padding");
static_assert(offsetof(sec_attr, user_perm) == 0, "user_perm");
static_assert(offsetof(sec_attr, group_perm) == 4, "group_perm");
static_assert(offsetof(sec_attr, other_perm) == 8, "other_perm");
static_assert(offsetof(sec_attr, user_name) == 12, "user_name");
static_assert(offsetof(sec_attr, group_name) == 76, "group_name");

#endif
