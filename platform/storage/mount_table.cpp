#include "storage/mount_table.h"

#include "storage/failure.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <set>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include <libmount.h>

namespace zevos {

namespace {

// Of the calling thread: others may have mounts of their own, and the first one may have ended.
constexpr char kMountInfo[] = "/proc/thread-self/mountinfo";

struct ReleaseTable {
	void operator()(libmnt_table *table) const { mnt_unref_table(table); }
};
struct ReleaseIterator {
	void operator()(libmnt_iter *iterator) const { mnt_free_iter(iterator); }
};
using Table = std::unique_ptr<libmnt_table, ReleaseTable>;
using Iterator = std::unique_ptr<libmnt_iter, ReleaseIterator>;

std::string Text(const char *text)
{
	return text != nullptr ? text : "";
}

std::vector<Mount> ReadMounts()
{
	const Table table(mnt_new_table());
	const Iterator iterator(mnt_new_iter(MNT_ITER_FORWARD));
	if (table == nullptr || iterator == nullptr)
		throw std::bad_alloc();
	const int result = mnt_table_parse_file(table.get(), kMountInfo);
	if (result == -ENOMEM)
		throw std::bad_alloc();
	if (result != 0)
		throw KernelFailure(VUNKC_ERR_FILE_READ, kMountInfo);

	std::vector<Mount> mounts;
	libmnt_fs *line = nullptr;
	while (mnt_table_next_fs(table.get(), iterator.get(), &line) == 0) {
		mounts.push_back({mnt_fs_get_id(line), mnt_fs_get_parent_id(line), mnt_fs_get_devno(line),
		                  Text(mnt_fs_get_root(line)), Text(mnt_fs_get_target(line)),
		                  Text(mnt_fs_get_fstype(line)), Text(mnt_fs_get_source(line))});
	}
	return mounts;
}

/// Walks the tree of mounts as the kernel does when it looks a path up: folder by folder, stepping onto whatever is mounted
/// there. So a mount hides what stands on the same mount further down, and the mount itself whose root it stands on.
class MountTree {
public:
	explicit MountTree(const std::vector<Mount> &mounts)
	{
		std::unordered_set<int> ids;
		for (const Mount &mount : mounts)
			ids.insert(mount.id);
		for (const Mount &mount : mounts) {
			if (!ids.contains(mount.parent) || mount.parent == mount.id) {
				roots.push_back(&mount); // stands on what this process cannot see
			} else if (mount.path != "/") {  // looking up begins below what is mounted over the root
				children[mount.parent].push_back(&mount);
				standing.emplace(mount.parent, mount.path);
			}
		}
	}

	/// Call once.
	std::vector<Mount> Reachable()
	{
		std::vector<Mount> reachable;
		std::vector<const Mount *> open = std::move(roots);
		while (!open.empty()) {
			const Mount &mount = *open.back();
			open.pop_back();
			if (IsHiddenByAbove(mount))
				continue;
			if (!standing.contains({mount.id, mount.path}))
				reachable.push_back(mount);
			const auto above = children.extract(mount.id);
			if (!above.empty())
				open.insert(open.end(), above.mapped().begin(), above.mapped().end());
		}
		return reachable;
	}

private:
	/// Whether something stands on the same mount at a folder above.
	bool IsHiddenByAbove(const Mount &mount) const
	{
		std::string folder = mount.path;
		while (folder.size() > 1) {
			folder.resize(std::max<size_t>(folder.rfind('/'), 1));
			if (standing.contains({mount.parent, folder}))
				return true;
		}
		return false;
	}

	std::vector<const Mount *> roots;
	std::unordered_map<int, std::vector<const Mount *>> children; // by the mount that they stand on
	std::set<std::pair<int, std::string>> standing;               // a mount, and where another one stands on it
};

} // namespace

std::vector<Mount> ReadReachableMounts()
{
	const std::vector<Mount> mounts = ReadMounts();
	return MountTree(mounts).Reachable();
}

} // namespace zevos
