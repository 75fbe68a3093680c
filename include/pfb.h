/* SPDX-License-Identifier: MIT */
/*
 * pfb.h - show a rectangle of pixels on the display server's screen.
 *
 *	pfb_client *client = pfb_connect("hello");
 *	if (client == NULL || pfb_create(client, PFB_FORMAT_XRGB32, 100, 50, 320, 200, 0, 0) != PFB_OK) {
 *		fprintf(stderr, "%s\n", pfb_error_text());
 *		return 1;
 *	}
 *	memset(pfb_pixels(client), 0x80, (size_t)pfb_stride(client) * 200);
 *	pfb_show(client);
 *	sleep(5);
 *	pfb_disconnect(client);
 *
 * A client is one connection to the server, and has one surface: a rectangle of shared memory that it draws into and
 * that the server composes with the surfaces of others. A program that wants two surfaces connects twice.
 *
 * Coordinates are pixels. SCREEN coordinates count from the top left corner of the screen as its viewer sees it, turned
 * or not; SURFACE coordinates from the surface's own top left pixel. Positions lie within +-PFB_COORDINATE_MAX, sizes
 * within 0 to PFB_COORDINATE_MAX.
 *
 * Errors. Functions that can fail return PFB_OK (0) or a code below 0; pfb_connect returns NULL. pfb_error() and
 * pfb_error_text() then tell the code and, in words, what was wrong. The server answers hardly any request, and takes
 * some mistakes for a reason to stop working for everybody; so whatever it would refuse, or stop for, is refused here:
 * nothing is sent then.
 *
 * Time-outs. A function that sends waits at most pfb_set_timeout's time (5 s at first) for room in the socket or for
 * the server's answer, and fails with PFB_ERROR_TIMEOUT after it. Where nothing else is said, the request was then not
 * sent.
 *
 * Order. The requests of one client are handled in the order of the calls. Most functions return when the request is on
 * its way; pfb_get_color_depth returns when everything before it has been done.
 *
 * The server ends. A client with a surface notices little: as soon as there is a server again, the library connects,
 * copies the pixels into new shared memory at the same address and makes the surface again as it was, pfb_set_reconnect
 * says how. It does so inside pfb_dispatch and requests: a program that calls neither stays away. While there is no
 * server requests are only remembered, and succeed at once.
 *
 * Threads. A client belongs to one thread at a time: calls on it must not overlap. Different clients may be used by
 * different threads at once. The error text is each thread's own. Signals do not end a call, and the library raises
 * none. After fork the child leaves the parent's clients alone.
 */
#ifndef PFB_H
#define PFB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define PFB_PUBLIC __attribute__((visibility("default")))
#else
#define PFB_PUBLIC
#endif

#define PFB_COORDINATE_MAX 1000000

typedef struct pfb_client pfb_client;

enum pfb_error {
	PFB_OK = 0,
	PFB_ERROR_ARGUMENT = -1,  /* a value that the server would refuse or stop for, or a null pointer */
	PFB_ERROR_STATE = -2,     /* not now: no surface yet, one already, no lock to undo, ... */
	PFB_ERROR_NO_SERVER = -3, /* nobody listens */
	PFB_ERROR_ACCESS = -4,    /* the server, or this client's memory for the server, is out of reach */
	PFB_ERROR_GONE = -5,      /* the server has ended, or has closed the connection, over this call */
	PFB_ERROR_TIMEOUT = -6,   /* no answer, or no room in the socket, in time */
	PFB_ERROR_MEMORY = -7,    /* no memory, shared or own */
	PFB_ERROR_SYSTEM = -8,    /* anything else that the system refuses; the text has its reason */
};

/* The last failure in this thread: its code (PFB_OK before the first one), and one line without a newline, "pfb_move:
 * ..." (empty before the first one). The text stays valid, and the same, until the next failure in this thread. */
PFB_PUBLIC int pfb_error(void);
PFB_PUBLIC const char *pfb_error_text(void);

/* ---- connection ------------------------------------------------------------------------------------------- */

/*
 * Connects to the server. The server listens in the folder $MC_RUNTIME_DIR, else $XDG_RUNTIME_DIR, else /run/mc.
 * `name` (1 to 255 bytes) becomes the name of the surface, and what stands before its first "." chooses the output:
 * "fb2.clock" is shown on the second layer, "x.clock" nowhere, any other name on the main screen. Dots at its
 * front are skipped; there has to be something else.
 * The result is the caller's, to be given to pfb_disconnect. NULL: ARGUMENT, NO_SERVER, ACCESS, MEMORY, SYSTEM, GONE
 * (also when 64 connections of this process are open already, or 256 in all), and TIMEOUT when the server has not come
 * to accept one more for 5 s.
 */
PFB_PUBLIC pfb_client *pfb_connect(const char *name);

/*
 *	pfb_client *client = pfb_connect("fb2.clock");
 *	if (client == NULL)
 *		fprintf(stderr, "%s\n", pfb_error_text());
 *	else
 *		pfb_set_timeout(client, 1000);
 *	pfb_disconnect(client);
 *
 * Ends the connection and frees the client: the server removes the surface, with its locks, and its pixels are unmapped
 * here. What was sent before is still handled. A client on its way back after the server's end waits, as long as a call
 * may, until the server has taken its memory. NULL is allowed.
 */
PFB_PUBLIC void pfb_disconnect(pfb_client *client);

/*
 * A descriptor for the caller's main loop, the same one for the life of the client: when it can be read (POLLIN), call
 * pfb_dispatch. That is so when the server has ended and whenever the library has something to do to get over it, and
 * once a second while the surface is being changed and until a second later. It can be watched by poll, select, epoll,
 * g_unix_fd_add and the like; read and write nothing. Owned by the client. -1 for NULL.
 *
 *	struct pollfd entry = {pfb_poll_fd(client), POLLIN, 0};
 *	while (poll(&entry, 1, -1) > 0)
 *		if (pfb_dispatch(client) != PFB_OK)
 *			break;
 */
PFB_PUBLIC int pfb_poll_fd(const pfb_client *client);

/* The socket of the present connection, to ask the system about it (SO_PEERCRED), or for programs that end with the
 * server: POLLHUP tells that it is gone. It is another one after each pfb_dispatch or request that has connected again,
 * and -1 while there is none; wait for nothing but the hang-up (ask for no events), read and write nothing. Owned by the
 * client. -1 for NULL. */
PFB_PUBLIC int pfb_fd(const pfb_client *client);

/* Does what there is to do about the server's end, without waiting (but where dozens of locks are outstanding, for the
 * server to read them); every request does so too, so that a client without a main loop needs no call. Calls the
 * function of pfb_set_event_func. Nothing to do is no error. Errors: ARGUMENT, STATE, and GONE where the server has
 * ended and pfb_set_reconnect is off. */
PFB_PUBLIC int pfb_dispatch(pfb_client *client);

/* How long a call may wait, in milliseconds, from now on; -1: for ever. Errors: ARGUMENT. */
PFB_PUBLIC int pfb_set_timeout(pfb_client *client, int milliseconds);

/* ---- when the server ends ---------------------------------------------------------------------------------- */

/*
 * Whether the library gets over the end of the server by itself: on (not 0) at first. When it is off, a call that finds
 * the server gone fails with GONE, and so do all that follow.
 *
 *	pfb_set_reconnect(client, 0);
 *	if (pfb_show(client) == PFB_ERROR_GONE)
 *		pfb_disconnect(client);
 *
 * A client with a surface. The surface comes back with its pixels and everything that was set: shown or hidden,
 * position, size, level, clip, opaque area, colour plane, scale, sync, rotation and locks. pfb_pixels stays the same
 * address. What does not come back:
 *   - the order among surfaces of the same level: it is that in which their clients are back. Give surfaces that
 *     overlap different levels.
 *   - the turn of the display, where surfaces expect different ones: each turns it when it is made, shown or hidden,
 *     and the last one back decides. While a surface that expects another turn is shown, nothing is drawn any more,
 *     until one of the right turn comes and goes. Give all the same.
 *   - what pfb_set_surface has selected.
 * Requests succeed meanwhile and are only remembered: drawing, pfb_dirty, pfb_lock and pfb_unlock go on as ever.
 * Where there is a server again, or a service manager's socket for it, and the surface is on its way to it, they wait
 * for its answer as long as pfb_set_timeout allows, and fail with TIMEOUT without it.
 * pfb_get_color_depth, pfb_set_surface, pfb_status and pfb_set_color_format wait for a server as long as
 * pfb_set_timeout allows.
 *
 * A client without a surface is connected again; its requests wait in the same way. The one that the server ended over
 * fails with GONE.
 *
 * What the server may have died of. Requests are not sent again, but their outcome is, once, which for a size, a scale,
 * a clip or a colour is the same request; an unanswered lock comes back with an empty area; an unanswered pfb_create
 * fails with GONE. When the next server ends as well, and has begun to make this surface by then, what was changed
 * since a server last answered (pfb_create, pfb_lock, pfb_get_color_depth, and the surface's return) is left out:
 * PFB_EVENT_REDUCED. A server that pfb_dispatch or a request finds alive a second after a change, with all requests
 * read, counts as having answered.
 *
 * How often. At once; while no server listens, or one that lives turns this client away, again after a quarter of the
 * time that it has been away, at least 1 ms and at most 1 s. When servers end within 5 s of the surface's return,
 * 100 ms after the second of them, then 200 ms and so on to 10 s, each lengthened by up to a half by chance.
 *
 * Memory. For a moment the pixels are there twice. Where shared memory has no room for that, the old memory goes first,
 * and the pixels wait in memory of this process's own, at the same address; where there is still none, it is tried again
 * as above.
 * Threads. A thread that draws while another one is inside a call on this client may draw into the old memory: draw
 * again after PFB_EVENT_RESTORED.
 * Errors: ARGUMENT.
 */
PFB_PUBLIC int pfb_set_reconnect(pfb_client *client, int on);

enum pfb_event {
	PFB_EVENT_LOST = 1,     /* the server has ended, or has closed the connection */
	PFB_EVENT_RESTORED = 2, /* the server has everything again */
	PFB_EVENT_REDUCED = 3,  /* some changes were left out, see pfb_set_reconnect: set again what matters */
};

/* Called from inside pfb_dispatch and requests, on their thread. It may call everything but pfb_disconnect. */
typedef void (*pfb_event_func)(pfb_client *client, enum pfb_event event, void *user_data);

/*
 * Sets the function that is told of the server's end and return; NULL: none. `user_data` is handed to it and stays the
 * caller's. Errors: ARGUMENT.
 *
 *	static void on_event(pfb_client *client, enum pfb_event event, void *user_data)
 *	{
 *		(void)client;
 *		if (event == PFB_EVENT_LOST)
 *			++*(int *)user_data;
 *	}
 */
PFB_PUBLIC int pfb_set_event_func(pfb_client *client, pfb_event_func function, void *user_data);

/* 1 when the client is connected and the server has its surface; 0 otherwise. */
PFB_PUBLIC int pfb_is_connected(const pfb_client *client);

/* ---- surface ---------------------------------------------------------------------------------------------- */

/* Pixels are little-endian words. Colours of ARGB32 are multiplied by alpha, as Cairo's CAIRO_FORMAT_ARGB32 has them;
 * alpha is honoured on 32-bit screens only. The unused byte of XRGB32 is best stored as 255. */
enum pfb_format {
	PFB_FORMAT_ARGB32 = 0, /* 32 bits: alpha 24..31, red 16..23, green 8..15, blue 0..7 */
	PFB_FORMAT_XRGB32 = 1, /* the same, opaque */
	PFB_FORMAT_RGB16 = 3,  /* 16 bits: red 11..15, green 5..10, blue 0..4 */
	PFB_FORMAT_RGB18 = 8,  /* 32 bits: red 12..17, green 6..11, blue 0..5 */
};

/*
 *	if (pfb_create(client, PFB_FORMAT_RGB16, 0, 0, 64, 48, 1, 0) == PFB_OK)
 *		for (int y = 0; y < pfb_height(client); y++) {
 *			uint16_t *row = (uint16_t *)((char *)pfb_pixels(client) + y * pfb_stride(client));
 *			for (int x = 0; x < pfb_width(client); x++)
 *				row[x] = 0x07e0;
 *		}
 *
 * Makes the client's surface: shared memory of its size, zeroed and mapped here, and the "create" request; returns when
 * the server has it. It is hidden at first. Once for each client.
 *   x, y           position, SCREEN coordinates; any part may lie outside the screen
 *   width, height  pixels, at least 1; at most 32767, and 2^31 - 1 bytes in all
 *   level          place in the stack: a higher one is nearer to the viewer; among equals the newest is on top
 *   rotation       how this client expects the display to be turned, 0, 90 or 270 degrees. When it is turned
 *                  otherwise, it is turned now, for everybody: give what the device uses
 * Until the server has it, the memory can be opened by this user and by the group of the server's socket, those who
 * may connect; its name is gone afterwards.
 * Errors: ARGUMENT, STATE (there is a surface), ACCESS (the server is another user, or behind a service manager's
 * socket any, and this process is not of its group), MEMORY, SYSTEM, GONE (the server ended over it: it may be called
 * again). TIMEOUT: when the request was on its way already, the client is of no use any more but for pfb_disconnect, and
 * every call on it fails with STATE.
 */
PFB_PUBLIC int pfb_create(pfb_client *client, enum pfb_format format, int32_t x, int32_t y, int32_t width,
			  int32_t height, int32_t level, int32_t rotation);

/* The first pixel; rows are pfb_stride bytes apart (a multiple of 64). The same address until pfb_disconnect, also when
 * the server ends. Owned by the client. NULL or 0 without a surface. */
PFB_PUBLIC void *pfb_pixels(const pfb_client *client);
PFB_PUBLIC int32_t pfb_stride(const pfb_client *client);
/* The size given to pfb_create. 0 without a surface. */
PFB_PUBLIC int32_t pfb_width(const pfb_client *client);
PFB_PUBLIC int32_t pfb_height(const pfb_client *client);

/* ---- where and whether it is seen --------------------------------------------------------------------------
 *
 *	pfb_set_clip(client, 0, 0, 400, 300);
 *	pfb_set_scale(client, 0, 0, 64, 48, 200, 100, 128, 96);
 *	pfb_show(client);
 *
 * From here on, the requests of a client without a surface of its own act on the selected surface (pfb_set_surface);
 * without one the server ignores them. Errors of all of them: ARGUMENT, STATE (only
 * pfb_disconnect is left, see pfb_create), TIMEOUT, GONE, MEMORY, SYSTEM.
 */

/* Shows the surface, with all of its pixels, or hides it. Doing so twice has no effect. On the main screen the last
 * pixels of a hidden surface stay where no other surface lies below. */
PFB_PUBLIC int pfb_show(pfb_client *client);
PFB_PUBLIC int pfb_hide(pfb_client *client);

/* Moves the top left pixel to (x, y), SCREEN coordinates. */
PFB_PUBLIC int pfb_move(pfb_client *client, int32_t x, int32_t y);

/* Shows only the first width x height pixels. At least 1; at most the size given to pfb_create, or while scaled the
 * destination's. */
PFB_PUBLIC int pfb_resize(pfb_client *client, int32_t width, int32_t height);

/* Moves the surface to a level of the stack, there on top of all others of the same level. */
PFB_PUBLIC int pfb_set_layer(pfb_client *client, int32_t level);

/* Limits the surface to a rectangle, SCREEN coordinates; an empty one leaves nothing of it. A clip cannot be removed,
 * only made larger. */
PFB_PUBLIC int pfb_set_clip(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height);

/* Declares a rectangle, SURFACE coordinates, to be opaque: what lies below it need not be drawn. Replaces the earlier
 * one; empty: none. At first a surface with alpha is opaque nowhere, any other everywhere. Counts from the next
 * drawing on. */
PFB_PUBLIC int pfb_set_opaque_area(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height);

/*
 * Shows a colour in place of the pixels: PFB_PLANE_COLOR(0xRRGGBB) fills the surface, PFB_PLANE_VEIL(n) dims what lies
 * below it to n/256 of its brightness, n from 0 to 254 (on 32-bit screens; nothing happens on 16-bit ones, and 18-bit
 * ones show noise), PFB_PLANE_NONE ends either. Any other value shows nothing at all, and is refused: ARGUMENT.
 * It counts from the next time that the surface is drawn: set it before pfb_show. A surface that is drawn while none
 * below it is (or that is alone) shows its pixels all the same; and pfb_dirty is ignored meanwhile: what changes a veil
 * is a change below it.
 */
#define PFB_PLANE_NONE 0xffffffffu
#define PFB_PLANE_COLOR(rgb) (0xff000000u | (uint32_t)(rgb))
#define PFB_PLANE_VEIL(n) (((uint32_t)(n) << 24) | 0x00ffffffu)
PFB_PUBLIC int pfb_set_color_plane(pfb_client *client, uint32_t plane);

/*
 * Shows a rectangle of the client's own pixels (SURFACE coordinates) stretched or shrunk to a rectangle of the screen
 * (SCREEN coordinates), and moves the surface there; equal sizes end the scaling, and leave a surface of that size at
 * the destination. All sizes at least 1, the destination at most 32767.
 * The source has to lie within the surface, and while it is scaled, its right edge also within the width of the present
 * destination. Equal sizes on an unscaled surface do nothing. STATE: the client has no surface; 18-bit surfaces are
 * refused (ARGUMENT): they come out as noise.
 */
PFB_PUBLIC int pfb_set_scale(pfb_client *client, int32_t source_x, int32_t source_y, int32_t source_width,
			     int32_t source_height, int32_t x, int32_t y, int32_t width, int32_t height);

/* ---- drawing ---------------------------------------------------------------------------------------------- */

/* Tells that these pixels (SURFACE coordinates; while scaled, of the client's own pixels) have changed. They are shown
 * soon; what lies outside the surface is skipped. Ignored while the surface is hidden: pfb_show draws all of it. */
PFB_PUBLIC int pfb_dirty(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height);

/*
 *	if (pfb_lock(client, 8, 8, 32, 32) == PFB_OK) {
 *		memset(pfb_pixels(client), 0, 40 * (size_t)pfb_stride(client));
 *		pfb_unlock(client);
 *	}
 *
 * A pair around drawing that must not be seen half done: pfb_lock returns when the server draws nothing any more; draw
 * within the rectangle, SURFACE coordinates; pfb_unlock lets the server show it. Keep it short: no surface of
 * anybody is drawn meanwhile. Pairs nest. Nothing stays locked after a pfb_lock that failed (after TIMEOUT the lock is
 * taken back by a request that follows it), nor after pfb_disconnect or the end of this process.
 * When the server ends meanwhile, the next one is locked before it draws this surface.
 * STATE: no surface; pfb_unlock without a lock.
 */
PFB_PUBLIC int pfb_lock(pfb_client *client, int32_t x, int32_t y, int32_t width, int32_t height);
PFB_PUBLIC int pfb_unlock(pfb_client *client);

/*
 * Stops all drawing from now on, without waiting, until this surface's next pfb_unlock, which ends both this and one
 * pfb_lock: pfb_block_until_unlock, pfb_lock, draw, pfb_unlock. pfb_unlock without the pfb_lock between is refused
 * (STATE), pfb_disconnect cleans up. A process that dies between block and unlock stops the server: prefer pfb_lock.
 * STATE: no surface.
 */
PFB_PUBLIC int pfb_block_until_unlock(pfb_client *client);

/* Asks (not 0) or no longer asks (0) to be shown in step with the display; framebuffer outputs do nothing with it. */
PFB_PUBLIC int pfb_set_sync(pfb_client *client, int on);

/* ---- asking and selecting --------------------------------------------------------------------------------- */

/*
 * The colour depth of the output that the surface is on, in bits: 16, 18, 24 or 32, or 0 when it is on none. Waits for
 * the answer, and so for everything before it. `depth` is not touched on failure.
 *
 *	int depth;
 *	if (pfb_get_color_depth(client, &depth) == PFB_OK && depth < 24)
 *		printf("nothing is translucent here\n");
 */
PFB_PUBLIC int pfb_get_color_depth(pfb_client *client, int *depth);

/* Makes the lowest surface of that name the selected one, for all clients without a surface of their own; none of that
 * name: none is selected. The name has 0 to 255 bytes. */
PFB_PUBLIC int pfb_set_surface(pfb_client *client, const char *name);

/* Makes the server print its surfaces to its standard output. */
PFB_PUBLIC int pfb_status(pfb_client *client);

/* Sent for completeness: the server accepts it and does nothing. */
PFB_PUBLIC int pfb_set_color_format(pfb_client *client, int32_t format);

#ifdef __cplusplus
}
#endif
#endif
