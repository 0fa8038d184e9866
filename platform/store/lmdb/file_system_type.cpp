#include "store/lmdb/file_system_type.h"

#include <linux/magic.h>

namespace tkv::store {
namespace {

struct KnownType {
  long type;
  FileSystem file_system;
};

constexpr FileSystem network(const char* name) { return {FileSystemKind::kNetwork, name}; }
constexpr FileSystem pseudo(const char* name) { return {FileSystemKind::kPseudo, name}; }

// Constants of <linux/magic.h> where it has one; the other numbers come from the file systems' own headers.
constexpr KnownType kKnownTypes[] = {
    {NFS_SUPER_MAGIC, network("NFS")},
    {SMB_SUPER_MAGIC, network("SMB")},
    {CIFS_SUPER_MAGIC, network("CIFS")},
    {SMB2_SUPER_MAGIC, network("SMB2")},
    {AFS_SUPER_MAGIC, network("AFS")},
    {AFS_FS_MAGIC, network("AFS")},
    {CODA_SUPER_MAGIC, network("Coda")},
    {NCP_SUPER_MAGIC, network("NCP")},
    {CEPH_SUPER_MAGIC, network("Ceph")},
    {0x0BD00BD0, network("Lustre")},
    {0x47504653, network("GPFS")},
    {0x01161970, network("GFS2")},
    {OCFS2_SUPER_MAGIC, network("OCFS2")},
    {0x20030528, network("OrangeFS")},
    {0x19830326, network("BeeGFS")},
    {0xAAD7AAEA, network("PanFS")},
    {V9FS_MAGIC, network("9P")},
    {FUSE_SUPER_MAGIC, network("FUSE")},
    {0x786F4256, network("a shared folder of a virtual machine")},
    {0xBACBACBC, network("a shared folder of a virtual machine")},
    {PROC_SUPER_MAGIC, pseudo("proc")},
    {SYSFS_MAGIC, pseudo("sysfs")},
    {CGROUP_SUPER_MAGIC, pseudo("cgroup")},
    {CGROUP2_SUPER_MAGIC, pseudo("cgroup2")},
    {DEVPTS_SUPER_MAGIC, pseudo("devpts")},
    {DEBUGFS_MAGIC, pseudo("debugfs")},
    {TRACEFS_MAGIC, pseudo("tracefs")},
    {SECURITYFS_MAGIC, pseudo("securityfs")},
    {SELINUX_MAGIC, pseudo("selinuxfs")},
    {SMACK_MAGIC, pseudo("smackfs")},
    {BPF_FS_MAGIC, pseudo("bpf")},
    {0x62656570, pseudo("configfs")},
    {0x19800202, pseudo("mqueue")},
    {0x65735543, pseudo("fusectl")},
    {PSTOREFS_MAGIC, pseudo("pstore")},
    {EFIVARFS_MAGIC, pseudo("efivarfs")},
    {BINFMTFS_MAGIC, pseudo("binfmt_misc")},
    {RDTGROUP_SUPER_MAGIC, pseudo("resctrl")},
    {NSFS_MAGIC, pseudo("nsfs")},
    {HUGETLBFS_MAGIC, pseudo("hugetlbfs")},
    {AUTOFS_SUPER_MAGIC, pseudo("autofs")},
};

}  // namespace

FileSystem file_system_of_type(long type) {
  for (const KnownType& known : kKnownTypes)
    if (known.type == type) return known.file_system;
  return {};
}

}  // namespace tkv::store
