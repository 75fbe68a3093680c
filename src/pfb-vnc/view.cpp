// SPDX-License-Identifier: MIT
#include "view.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <poll.h>
#include <rfb/rfb.h>

#include "../panelimage/folder.h"
#include "../panelimage/message.h"
#include "../panelimage/sampling.h"
#include "mirror.h"

namespace {

constexpr int FIRST_PORT = 5900;
volatile sig_atomic_t stopped;
sigset_t while_waiting; // the signals that are blocked while the loop sleeps: all but ours

void stop(int)
{
    stopped = 1;
}

// They come in only while the loop sleeps or is about to look, so that none is missed between.
void catch_signals()
{
    struct sigaction action = {};
    action.sa_handler = stop;
    sigset_t ours;
    sigemptyset(&ours);
    for (const int number : {SIGINT, SIGTERM}) {
        sigaddset(&ours, number);
        sigaction(number, &action, nullptr);
    }
    sigprocmask(SIG_BLOCK, &ours, &while_waiting);
    for (const int number : {SIGINT, SIGTERM})
        sigdelset(&while_waiting, number);
    signal(SIGPIPE, SIG_IGN); // a viewer that goes while it is written to
}

void say_nothing(const char *, ...) {}

// What the callbacks reach through the library's screen record.
struct View {
    rfbScreenInfo *rfb;
    Mirror mirror;
    bool failed;
};

void look(View *view)
{
    const auto mark = [view](const MirrorRect &r) {
        rfbMarkRectAsModified(view->rfb, static_cast<int>(r.x1), static_cast<int>(r.y1), static_cast<int>(r.x2),
                              static_cast<int>(r.y2));
    };
    if (!mirror_look(&view->mirror, mark))
        view->failed = true;
}

// After a sleep the copy is old: a new viewer's first picture is made from a new one.
rfbNewClientAction greet(rfbClientRec *client)
{
    look(static_cast<View *>(client->screen->screenData));
    return RFB_CLIENT_ACCEPT;
}

void set_password(rfbScreenInfo *rfb, const ViewPlan &plan, const char *(&list)[2])
{
    list[0] = plan.password.c_str();
    list[1] = nullptr;
    if (plan.password.empty())
        return;
    rfb->authPasswdData = list;
    rfb->passwordCheck = rfbCheckPasswordByList;
}

void set_address(rfbScreenInfo *rfb, const ViewPlan &plan)
{
    rfb->listenInterface = plan.address;
    rfb->port = plan.port != 0 ? plan.port : FIRST_PORT;
    rfb->autoPort = plan.port == 0;
    rfb->ipv6port = 0; // without an address of its own it would listen everywhere
}

// Null after a message.
rfbScreenInfo *new_rfb(View *view, const ViewPlan &plan)
{
    Mirror &mirror = view->mirror;
    rfbScreenInfo *rfb =
        rfbGetScreen(nullptr, nullptr, static_cast<int>(mirror.width), static_cast<int>(mirror.height), 8, 3, 4);
    if (rfb == nullptr) {
        complain("no memory for a picture of %u x %u pixels", mirror.width, mirror.height);
        return nullptr;
    }
    rfb->frameBuffer = reinterpret_cast<char *>(mirror.rgbx.data());
    rfb->desktopName = mirror.screen->title.c_str();
    rfb->screenData = view;
    rfb->newClientHook = greet;
    rfb->alwaysShared = TRUE;
    rfbSetCursor(rfb, nullptr); // the panel has no pointer
    set_address(rfb, plan);
    return rfb;
}

bool listen(rfbScreenInfo *rfb, const ViewPlan &plan)
{
    char address[INET_ADDRSTRLEN];
    const in_addr where = {plan.address};
    inet_ntop(AF_INET, &where, address, sizeof address);
    rfbInitServer(rfb);
    if (rfb->listenSock == RFB_INVALID_SOCKET) {
        complain("cannot listen at %s port %d: is it in use?", address, rfb->port);
        return false;
    }
    printf("viewers connect to %s:%d\n", address, rfb->port);
    fflush(stdout);
    return true;
}

// Until somebody comes or a signal does.
void sleep_until_viewer(const rfbScreenInfo *rfb)
{
    pollfd entry = {rfb->listenSock, POLLIN, 0};
    ppoll(&entry, 1, nullptr, &while_waiting);
}

// Lets a signal that is waiting come in.
void take_signals()
{
    const timespec at_once = {0, 0};
    ppoll(nullptr, 0, &at_once, &while_waiting);
}

bool panel_lives(const Screen &screen)
{
    if (screen.panel == nullptr || folder_is_running(screen.title))
        return true;
    complain("the panel %s has ended", screen.title.c_str());
    return false;
}

void serve(View *view, const ViewPlan &plan)
{
    const double period = 1.0 / plan.rate;
    double next_look = 0;
    while (!stopped && !view->failed) {
        if (view->rfb->clientHead == nullptr)
            sleep_until_viewer(view->rfb);
        rfbProcessEvents(view->rfb, static_cast<long>(period * 1e6));
        take_signals();
        if (view->rfb->clientHead == nullptr || sampling_clock() < next_look)
            continue;
        next_look = sampling_clock() + period;
        look(view);
        view->failed = view->failed || !panel_lives(*view->mirror.screen);
    }
}

} // namespace

int view_run(Screen *screen, const ViewPlan &plan)
{
    View view = {nullptr, {}, false};
    const char *passwords[2];
    mirror_init(&view.mirror, screen);
    rfbLog = say_nothing;
    rfbErr = say_nothing;
    view.rfb = new_rfb(&view, plan);
    if (view.rfb == nullptr)
        return STATUS_FAILED;
    set_password(view.rfb, plan, passwords);
    catch_signals();
    const bool listening = listen(view.rfb, plan);
    if (listening)
        serve(&view, plan);
    rfbShutdownServer(view.rfb, TRUE);
    rfbScreenCleanup(view.rfb);
    return listening && !view.failed ? STATUS_DONE : STATUS_FAILED;
}
