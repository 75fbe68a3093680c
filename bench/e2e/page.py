# SPDX-License-Identifier: MIT
"""The page of figures, with places for what report.py makes of the measures, and for the folder of its plots."""

PAGE = '''# Performance

`make bench` has written this page: it builds, measures and compares on the machine that it runs on. Each figure is
the median of its rounds, with the middle half of them in brackets. The servers take turns in every round, and only
figures of one run are compared: a busy machine moves all of them, by 15 to 40 % between runs. An exclamation mark: a
goal is missed; [the end of this page](#goals) lists those. Points in the plots are medians, bars the middle half. All
single measures are in `build/bench/results` after a run: `results.json`, and `kernels.json` for the pixel loops.

Machine: {machine}.
{shortened}
## What is measured

One client with a surface of 480 x 272 pixels of 32 bits draws 64 x 64 of them, reports it, and waits until they are on
the panel. The servers:

- **fbserver**, on the virtual panel;
- the **floor**: a GLib loop with a Unix socket that receives one request for each wake-up and copies the rectangle,
  and does nothing else (`bench/e2e/floor.c`): once, or twice as fbserver does (into the work image, then to the
  panel). Of those with two copies there are three: GLib as it is commonly used makes six system calls a request; the
  **tuned** floor makes two; the **draining** floor is tuned and takes all requests that wait, up to 16, by one system
  call;
- **Xvfb**, with the shared-memory extension (`XShmPutImage`): it copies once;
- **Weston**, headless, with its pixman renderer. It shows its pixels to nobody, so its client waits for the frame
  callback instead: the end of the frame. When its client asks for one frame after the other they come every
  {weston_ms:.0f} ms; that is how often it gets updates, one at a time and 60 a second alike. Its desktop puts windows
  where it likes, over one another when there are many.

The goal for processor time is 1.15 of a floor that makes as many copies as fbserver. It counts against the plain
floor: a bare GLib loop, with nothing made better than GLib makes it. The tuned and the draining floor are no goals;
they show what is left to gain.

Where the kernel lets a client and its server run decides more than either of them does. So they are bound to
processors, all servers alike: **one processor** for both, which is what most small devices have, or **two**, one for
each. Growth is measured on one processor; memory, start, recovery and fairness are left to the kernel.

## Processor time of the server

How the client asks:

- **one at a time**: the next update when the one before is on the panel;
- **bursts**: it draws 16 updates, then reports all of them, waits until they are on the panel, and begins again. Each
  is a request of its own, sent by itself (for Weston a commit). The server waits for its turn meanwhile
  (`SCHED_BATCH`): on one processor the kernel would stop the client for it after any of them;
- **a window**: it draws and reports the next update as soon as the 16th before it is on the panel;
- **60 a second**: one update in every 60th of a second.

Of the two with 16 in flight the bursts are judged: 16 requests come at once whatever the server does, so the figure
is what 16 requests cost. In the window, how many wait when the server wakes depends on whether it or the client's
drawing is quicker, and on when the kernel lets either of them run: a server that has caught up sleeps more often and
looks dear, since a wake-up costs more than an update. It is shown beside, with no goal. The waits show both: how
often the server gave its processor up to wait, for each update (1 is a wake-up for each, 0.06 one for 16).

![Processor time]({plots}/cpu.svg)

{cpu}
## From request to pixel

All clients ask at once, and each one's time ends when its last pixel is on the panel (for Weston, when it says that
the frame is drawn). µs. Medians and 99th of 100 are those of each round; the figures are the median and middle half
of these.

![From request to pixel]({plots}/latency.svg)

{latency}
## Memory

While one client shows a full screen: the first one of a new server, and the fifth of five that come one after the
other. The pixels of the client, of the panel and of the image that a server composes are not counted.

![Memory]({plots}/memory.svg)

{memory}
## Start

All on a screen of 480 x 272 pixels. From the start of the program until it takes a client, and from the start of that
client's connection until its first full screen is on the panel; for Weston, until the frame callback. fbserver starts
with the virtual panel's library loaded into it, which the others do without. Where they run is left to the kernel.

![Start]({plots}/start.svg)

{start}
## Recovery

The server ends and is started again, and ten clients of the library, each a process, put their surfaces back: one of
the whole screen, nine translucent ones over it. Its end is a SIGKILL, or an assertion that a request fails. Who
starts it again does so at once, or after the 50 ms that `packaging/fbserver.service` asks for. ms; all of it is from
the signal or the request to the last pixel of the full picture.

{recovery}
## Fairness

One client shows 30 updates a second on top of everything while three others, each with a translucent surface as large
as the screen, flood the server. How late an update is counts from its report to its pixels on the panel, in ms, over
all updates of all rounds. The bound is for what the server makes of it: without the time in which it, or the
benchmark that looks, was ready and the kernel ran other programs, the floods among them. Garbage is the worst: each
of these clients leaves connections full of requests behind. [Robustness](robustness.md#floods) says where the bound
comes from. `make bench` fails when it is exceeded, or an update is not seen.

{fairness}
## Growth

### Other surfaces

An update of which 8 x 8 pixels are seen, among other surfaces, opaque, shown and unchanged; µs. The surface that
changes lies above all of them; or it is as large as the screen and lies below all of them, and they cover other parts
of it; or it lies below all of them, and each covers the same other half of the update. The goal: a thousand cost 5 µs
more than none.

![Other surfaces]({plots}/surfaces.svg)

{surfaces}
### Other clients

An update of 64 x 64 pixels while other clients are connected and quiet, µs. The floors look at every connection at each
wake-up; the others do not.

![Other clients]({plots}/clients.svg)

{clients}
### Size

An update by its size, one at a time, µs:

![Size]({plots}/size.svg)

{size}
### Reports

Scattered reports of one pixel each that wait for one pass, µs a report (receiving it included):

![Reports]({plots}/reports.svg)

{reports}
## Pixel loops

Speeds (bytes read and written per second) as fractions of memcpy's over the same buffers: medians of {repetitions}
repetitions, and how far their middle half spreads. The goals are for the fastest instruction set, those in brackets for
SSE2; beside pixman and libyuv they are how many times as fast the fastest set is. An exclamation mark: missed.

![Pixel loops]({plots}/kernels.svg)

```
{kernels}
```

## Instructions

`bench/instructions.txt` has the instructions and system calls of one update, `bench/instructions-client.txt` those of a
request in the client. They do not depend on how busy a machine is, and tests of the release build compare them.

## Goals

Medians count, rounded as they are shown; of fairness, the worst. Rounds: {rounds}; of cpu and latency, every third for
Weston, and for 60 a second.

{missed}'''
