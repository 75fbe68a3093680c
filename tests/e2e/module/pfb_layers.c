// SPDX-License-Identifier: GPL-2.0 OR MIT
// Framebuffer devices in plain memory, as boards have them and emulated PCs do not: 18 bits, padded rows, and a layer
// driver behind the last device.
//
//   insmod pfb_layers.ko bpp=18,32 width=160,120 height=96,64 pad=24,0
//
// makes one device for each given depth (at most two). The module's last device is the layer: it answers the
// layer-control request 0x46FF and keeps every block that it was handed, in order, readable from
// /proc/layer-control: one request a line, its 48 words in hexadecimal. Writing to the file empties it.
#include <linux/fb.h>
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <linux/seq_file.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>

#define DEVICES 2
#define LAYER_CONTROL 0x46FF
#define BLOCK_WORDS 48
#define RECORDS 64
#define COMMAND_APPLY 3
#define COMMAND_READ 4
#define FLAG_COMMIT 0x2000

static int bpp[DEVICES] = {32, 32};
static int width[DEVICES] = {160, 160};
static int height[DEVICES] = {96, 96};
static int pad[DEVICES]; // bytes behind each row
static int devices = DEVICES;
module_param_array(bpp, int, &devices, 0444);
module_param_array(width, int, NULL, 0444);
module_param_array(height, int, NULL, 0444);
module_param_array(pad, int, NULL, 0444);

static struct fb_info *infos[DEVICES];
static u32 palettes[DEVICES][16];

static DEFINE_MUTEX(layer_lock);
static u32 layer_block[BLOCK_WORDS]; // the driver's settings
static u32 records[RECORDS][BLOCK_WORDS];
static int n_records;

static bool is_layer(const struct fb_info *info)
{
	return info == infos[devices - 1];
}

// A driver takes the words that it knows; the others are its own. The commit bit ends with the request.
static void apply(const u32 *block)
{
	static const int known[] = {0, 29, 33, 34, 35, 46};
	int i;

	for (i = 0; i < ARRAY_SIZE(known); i++)
		layer_block[known[i]] = block[known[i]];
	layer_block[29] &= ~FLAG_COMMIT;
}

static int layer_control(u32 __user *argument)
{
	u32 block[BLOCK_WORDS];

	if (copy_from_user(block, argument, sizeof(block)))
		return -EFAULT;
	if (n_records < RECORDS)
		memcpy(records[n_records++], block, sizeof(block));
	if (block[0] == COMMAND_APPLY) {
		apply(block);
		return 0;
	}
	if (block[0] == COMMAND_READ)
		return copy_to_user(argument, layer_block, sizeof(layer_block)) ? -EFAULT : 0;
	return -EINVAL;
}

static int layers_ioctl(struct fb_info *info, unsigned int request, unsigned long argument)
{
	int result;

	if (!is_layer(info) || request != LAYER_CONTROL)
		return -ENOTTY;
	mutex_lock(&layer_lock);
	result = layer_control((u32 __user *)argument);
	mutex_unlock(&layer_lock);
	return result;
}

static int layers_mmap(struct fb_info *info, struct vm_area_struct *vma)
{
	return remap_vmalloc_range(vma, info->screen_buffer, vma->vm_pgoff);
}

static const struct fb_ops layers_ops = {
	.owner = THIS_MODULE,
	.fb_read = fb_sys_read,
	.fb_write = fb_sys_write,
	.fb_fillrect = sys_fillrect,
	.fb_copyarea = sys_copyarea,
	.fb_imageblit = sys_imageblit,
	.fb_ioctl = layers_ioctl,
	.fb_mmap = layers_mmap,
};

static void describe(struct fb_info *info, int i)
{
	const int bytes = bpp[i] == 16 ? 2 : 4;
	const int low = bpp[i] == 16 ? 5 : bpp[i] == 18 ? 6 : 8; // bits of red and blue
	const int green = bpp[i] == 16 ? 6 : low;

	info->var.xres = info->var.xres_virtual = width[i];
	info->var.yres = info->var.yres_virtual = height[i];
	info->var.bits_per_pixel = bpp[i];
	info->var.blue.length = low;
	info->var.green.offset = low;
	info->var.green.length = green;
	info->var.red.offset = low + green;
	info->var.red.length = low;
	strscpy(info->fix.id, "pfb_layers", sizeof(info->fix.id));
	info->fix.type = FB_TYPE_PACKED_PIXELS;
	info->fix.visual = FB_VISUAL_TRUECOLOR;
	info->fix.line_length = width[i] * bytes + pad[i];
	info->fix.smem_len = PAGE_ALIGN(info->fix.line_length * height[i]);
}

static void layer_free(int i)
{
	if (!infos[i])
		return;
	unregister_framebuffer(infos[i]);
	vfree(infos[i]->screen_buffer);
	framebuffer_release(infos[i]);
	infos[i] = NULL;
}

static int layer_new(int i)
{
	struct fb_info *info = framebuffer_alloc(0, NULL);
	int error = -ENOMEM;

	if (!info)
		return error;
	describe(info, i);
	info->fbops = &layers_ops;
	info->flags = FBINFO_DEFAULT | FBINFO_VIRTFB;
	info->pseudo_palette = palettes[i];
	info->screen_buffer = vmalloc_user(info->fix.smem_len);
	info->screen_size = info->fix.smem_len;
	if (info->screen_buffer)
		error = register_framebuffer(info);
	if (error) {
		vfree(info->screen_buffer);
		framebuffer_release(info);
		return error;
	}
	infos[i] = info;
	return 0;
}

static int records_show(struct seq_file *file, void *unused)
{
	int i, word;

	mutex_lock(&layer_lock);
	for (i = 0; i < n_records; i++)
		for (word = 0; word < BLOCK_WORDS; word++)
			seq_printf(file, "%08x%c", records[i][word], word + 1 < BLOCK_WORDS ? ' ' : '\n');
	mutex_unlock(&layer_lock);
	return 0;
}

static int records_open(struct inode *inode, struct file *file)
{
	return single_open(file, records_show, NULL);
}

static ssize_t records_write(struct file *file, const char __user *text, size_t length, loff_t *offset)
{
	mutex_lock(&layer_lock);
	n_records = 0;
	mutex_unlock(&layer_lock);
	return length;
}

static const struct proc_ops records_ops = {
	.proc_open = records_open,
	.proc_read = seq_read,
	.proc_lseek = seq_lseek,
	.proc_write = records_write,
	.proc_release = single_release,
};

static int __init layers_init(void)
{
	int i, error = 0;

	// What a driver holds in words that nobody set is its own affair: recognisable here, to see that they come back.
	for (i = 0; i < BLOCK_WORDS; i++)
		layer_block[i] = 0xD0000000 + i;
	for (i = 0; i < devices && !error; i++)
		error = layer_new(i);
	if (!error && !proc_create("layer-control", 0600, NULL, &records_ops))
		error = -ENOMEM;
	for (i = 0; i < devices && error; i++)
		layer_free(i);
	return error;
}

static void __exit layers_exit(void)
{
	int i;

	remove_proc_entry("layer-control", NULL);
	for (i = 0; i < devices; i++)
		layer_free(i);
}

module_init(layers_init);
module_exit(layers_exit);
MODULE_DESCRIPTION("Framebuffer devices in plain memory with a layer driver's control request");
MODULE_LICENSE("Dual MIT/GPL");
