// SPDX-License-Identifier: GPL-2.0
/*
 * The board's LED lines and reset button as the tc3162 platform driver offers them:
 *   /proc/tc3162/gpio_output   takes "active LINE LEVEL" commands; reading it gives every command
 *                              written so far, oldest first, each after its time in milliseconds,
 *                              and then waits for more
 *   /proc/tc3162/reset_button  gives the button's value; writing a number moves the button
 */

#include <linux/fs.h>
#include <linux/ktime.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/poll.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include <linux/uaccess.h>
#include <linux/wait.h>

#define LOG_SIZE (1 << 20) /* a ring: what was overwritten is skipped by its readers */

static char log_bytes[LOG_SIZE];
static loff_t log_end; /* bytes ever written */
static int button;
static DEFINE_MUTEX(lock);
static DECLARE_WAIT_QUEUE_HEAD(grown);

static ssize_t gpio_write(struct file *file, const char __user *from, size_t size, loff_t *position)
{
	char command[32], line[64];
	int length, i;

	if (size >= sizeof(command))
		return -EINVAL;
	if (copy_from_user(command, from, size))
		return -EFAULT;
	command[size] = '\0';
	if (size > 0 && command[size - 1] == '\n')
		command[size - 1] = '\0';
	length = scnprintf(line, sizeof(line), "%lld %s\n", ktime_to_ms(ktime_get()), command);

	mutex_lock(&lock);
	for (i = 0; i < length; i++)
		log_bytes[(size_t)(log_end + i) % LOG_SIZE] = line[i];
	log_end += length;
	mutex_unlock(&lock);
	wake_up_interruptible(&grown);
	return size;
}

static ssize_t gpio_read(struct file *file, char __user *to, size_t size, loff_t *position)
{
	size_t start, length;
	ssize_t result;

	if (wait_event_interruptible(grown, *position < READ_ONCE(log_end)))
		return -ERESTARTSYS;
	mutex_lock(&lock);
	if (log_end - *position > LOG_SIZE)
		*position = log_end - LOG_SIZE;
	start = (size_t)*position % LOG_SIZE;
	length = min3(size, (size_t)(log_end - *position), (size_t)LOG_SIZE - start);
	result = copy_to_user(to, log_bytes + start, length) ? -EFAULT : (ssize_t)length;
	mutex_unlock(&lock);
	if (result > 0)
		*position += result;
	return result;
}

static const struct proc_ops gpio_ops = {
	.proc_read = gpio_read,
	.proc_write = gpio_write,
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
