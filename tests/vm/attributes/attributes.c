// SPDX-License-Identifier: GPL-2.0
/*
 * Gives mounted Btrfs file systems the two attributes that an appliance's kernel has:
 *
 *   /sys/fs/btrfs/<uuid>/metadata_cache_enable      0 or 1
 *   /sys/fs/btrfs/<uuid>/zevo_writeback_thread_max  1 to 256
 *
 * Writing the UUID of a mounted file system to the parameter "add" makes them; they go when it is unmounted. Anything
 * that is no such number is refused with EINVAL. While the parameter "error" is not 0, each write fails with that error.
 */

#include <linux/fs.h>
#include <linux/kernfs.h>
#include <linux/kobject.h>
#include <linux/list.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/sysfs.h>

struct volume {
	struct list_head list;
	char uuid[40];
	unsigned int metadata_cache_enable;
	unsigned int writeback_thread_max;
};

static LIST_HEAD(volumes);
static DEFINE_MUTEX(volumes_lock);

static int error;
module_param(error, int, 0600);

static struct volume *find_volume(const char *uuid)
{
	struct volume *volume;

	list_for_each_entry(volume, &volumes, list) if (strcmp(volume->uuid, uuid) == 0) return volume;
	return NULL;
}

static ssize_t show(struct kobject *kobj, size_t member, char *buf)
{
	struct volume *volume;
	ssize_t result = -ENODEV;

	mutex_lock(&volumes_lock);
	volume = find_volume(kobject_name(kobj));
	if (volume)
		result = sysfs_emit(buf, "%u\n", *(unsigned int *)((char *)volume + member));
	mutex_unlock(&volumes_lock);
	return result;
}

static ssize_t store(struct kobject *kobj, size_t member, unsigned int least, unsigned int most, const char *buf,
                     size_t count)
{
	struct volume *volume;
	unsigned int value;
	int result;

	if (error)
		return -error;
	result = kstrtouint(buf, 10, &value);
	if (result)
		return result;
	if (value < least || value > most)
		return -EINVAL;
	mutex_lock(&volumes_lock);
	volume = find_volume(kobject_name(kobj));
	if (volume)
		*(unsigned int *)((char *)volume + member) = value;
	mutex_unlock(&volumes_lock);
	return volume ? count : -ENODEV;
}

#define ATTRIBUTE(name, member, least, most)                                                                          \
	static ssize_t name##_show(struct kobject *kobj, struct kobj_attribute *attr, char *buf)                      \
	{                                                                                                             \
		return show(kobj, offsetof(struct volume, member), buf);                                              \
	}                                                                                                             \
	static ssize_t name##_store(struct kobject *kobj, struct kobj_attribute *attr, const char *buf, size_t count) \
	{                                                                                                             \
		return store(kobj, offsetof(struct volume, member), least, most, buf, count);                         \
	}                                                                                                             \
	static struct kobj_attribute name##_attribute = __ATTR(name, 0644, name##_show, name##_store)

ATTRIBUTE(metadata_cache_enable, metadata_cache_enable, 0, 1);
ATTRIBUTE(zevo_writeback_thread_max, writeback_thread_max, 1, 256);

static struct attribute *attributes[] = {&metadata_cache_enable_attribute.attr,
                                         &zevo_writeback_thread_max_attribute.attr, NULL};
static const struct attribute_group group = {.attrs = attributes};

/* The file system's folder in sysfs, which Btrfs exports to nobody. To be put. */
static struct kernfs_node *find_folder(const char *uuid)
{
	struct kernfs_node *all = kernfs_find_and_get_ns(fs_kobj->sd, "btrfs", NULL);
	struct kernfs_node *folder = all ? kernfs_find_and_get_ns(all, uuid, NULL) : NULL;

	kernfs_put(all);
	return folder;
}

static int add(const char *text, const struct kernel_param *param)
{
	char uuid[40];
	struct kernfs_node *folder;
	struct volume *volume;
	int result;

	if (strscpy(uuid, text, sizeof(uuid)) < 0)
		return -EINVAL;
	strim(uuid);
	folder = find_folder(uuid);
	if (!folder)
		return -ENOENT;
	result = sysfs_create_group(folder->priv, &group);
	kernfs_put(folder);
	if (result)
		return result;

	/* A file system that is mounted again has the values that it starts with. */
	mutex_lock(&volumes_lock);
	volume = find_volume(uuid);
	if (!volume) {
		volume = kzalloc(sizeof(*volume), GFP_KERNEL);
		if (volume)
			list_add(&volume->list, &volumes);
	}
	if (volume) {
		strscpy(volume->uuid, uuid, sizeof(volume->uuid));
		volume->metadata_cache_enable = 0;
		volume->writeback_thread_max = 8;
	}
	mutex_unlock(&volumes_lock);
	return volume ? 0 : -ENOMEM;
}

static const struct kernel_param_ops add_ops = {.set = add};
module_param_cb(add, &add_ops, NULL, 0200);

static int __init attributes_init(void)
{
	return 0;
}
module_init(attributes_init);
/* Without an exit function the module stays, as its attributes may. */

MODULE_DESCRIPTION("Attributes of Btrfs file systems for tests");
MODULE_LICENSE("GPL");
