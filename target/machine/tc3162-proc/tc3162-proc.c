// SPDX-License-Identifier: GPL-2.0
/*
 * The board's LED lines and reset button as the tc3162 platform driver offers them:
 *   /proc/tc3162/gpio_output   takes "active LINE LEVEL" commands, and what else is written there.
 *                              Reading it gives what was written, oldest first, one write(2) at a
 *                              time, behind an octet 035, its time by the monotonic clock as
 *                              "SECONDS NANOSECONDS" and a blank
 *   /proc/tc3162/reset_button  gives the button's value; writing a number moves the button
 */

#include <linux/fs.h>
#include <linux/kfifo.h>
#include <linux/ktime.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/poll.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include <linux/uaccess.h>
#include <linux/wait.h>

#define LOG_SIZE (1 << 20)
#define ENTRY_MAX 2048

static DEFINE_MUTEX(lock);
static DECLARE_WAIT_QUEUE_HEAD(grown);
static STRUCT_KFIFO_REC_2(LOG_SIZE) entries;
static char entry[64 + ENTRY_MAX]; /* under the lock */
static int button;

static ssize_t gpio_write(struct file *file, const char __user *from, size_t size, loff_t *position)
{
	struct timespec64 now;
	size_t length;

	if (size > ENTRY_MAX)
		size = ENTRY_MAX;
	mutex_lock(&lock);
	ktime_get_ts64(&now);
	length = scnprintf(entry, sizeof(entry), "\035%lld %ld ", (long long)now.tv_sec, now.tv_nsec);
	if (copy_from_user(entry + length, from, size)) {
		mutex_unlock(&lock);
		return -EFAULT;
	}
	while (kfifo_avail(&entries) < length + size)
		kfifo_skip(&entries); /* nobody reads */
	kfifo_in(&entries, entry, length + size);
	mutex_unlock(&lock);
	wake_up_interruptible(&grown);
	return size;
}

static ssize_t gpio_read(struct file *file, char __user *to, size_t size, loff_t *position)
{
	ssize_t result;

	if (kfifo_is_empty(&entries) && (file->f_flags & O_NONBLOCK))
		return -EAGAIN;
	if (wait_event_interruptible(grown, !kfifo_is_empty(&entries)))
		return -ERESTARTSYS;
	mutex_lock(&lock);
	result = kfifo_out(&entries, entry, sizeof(entry));
	if (result > size)
		result = size;
	if (copy_to_user(to, entry, result))
		result = -EFAULT;
	mutex_unlock(&lock);
	return result;
}

static __poll_t gpio_poll(struct file *file, poll_table *table)
{
	poll_wait(file, &grown, table);
	return EPOLLOUT | EPOLLWRNORM | (kfifo_is_empty(&entries) ? 0 : EPOLLIN | EPOLLRDNORM);
}

static const struct proc_ops gpio_ops = {
	.proc_read = gpio_read,
	.proc_write = gpio_write,
	.proc_poll = gpio_poll,
	.proc_lseek = no_llseek,
};

static int button_show(struct seq_file *file, void *unused)
{
	seq_printf(file, "%d\n", READ_ONCE(button));
	return 0;
}

static int button_open(struct inode *inode, struct file *file)
{
	return single_open(file, button_show, NULL);
}

static ssize_t button_write(struct file *file, const char __user *from, size_t size,
			    loff_t *position)
{
	int value;
	int error = kstrtoint_from_user(from, size, 10, &value);

	if (error)
		return error;
	WRITE_ONCE(button, value);
	return size;
}

static const struct proc_ops button_ops = {
	.proc_open = button_open,
	.proc_read = seq_read,
	.proc_lseek = seq_lseek,
	.proc_release = single_release,
	.proc_write = button_write,
};

static int __init tc3162_init(void)
{
	struct proc_dir_entry *folder = proc_mkdir("tc3162", NULL);

	INIT_KFIFO(entries);
	if (folder && proc_create("gpio_output", 0666, folder, &gpio_ops) &&
	    proc_create("reset_button", 0666, folder, &button_ops))
		return 0;
	remove_proc_subtree("tc3162", NULL);
	return -ENOMEM;
}

static void __exit tc3162_exit(void)
{
	remove_proc_subtree("tc3162", NULL);
}

module_init(tc3162_init);
module_exit(tc3162_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("LED lines and reset button of the simulated tc3162 board");
