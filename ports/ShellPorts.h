// What the service shell needs from a backend (Linux, the emulated frames, macOS): the main
// loop, the discovery sessions, the screen, the notification centre, and where each frame's
// events and contacts go. Every pointer must outlive the shell.
#pragma once

#include <functional>
#include <vector>

#include "ContactStream.h"
#include "EventSink.h"
#include "HidManager.h"
#include "MainLoop.h"
#include "Notifications.h"
#include "Screen.h"

struct TShellPorts {
    IMainLoop* loop = nullptr;
    IHidManagerFactory* hidManagers = nullptr;
    IScreen* screen = nullptr;                     // null: there is no screen
    INotificationCenter* notifications = nullptr;  // null: no notifications
    // The sink of a frame's gesture events, by frame number; null (or no function): events
    // dropped. Main thread.
    std::function<CEventSink*(int deviceNumber)> sinkForDevice;
    // The names of the keys the platform's input device presses for a key event, for the dry
    // run's "linuxKeys"; empty when the platform has none to tell. Any thread.
    TKeyNamer keyNamer;
    // Contact listeners of a frame besides the gestures (touchscreen, TUIO, monitors), by frame
    // number; none when empty. Main thread; the listeners are then called on the worker.
    std::function<std::vector<IContactListener*>(int deviceNumber)> contactListeners;
    // The same for the outputs that hear a frame before the gestures and the others: a desktop
    // reads them directly (the touchscreen), so nothing slower stands in their way.
    std::function<std::vector<IContactListener*>(int deviceNumber)> firstContactListeners;
    // Whether the gesture emulation listens to the frames' contacts (it does unless turned off).
    bool gestures = true;
    // Runs when the process is about to end at once (wake from sleep), for what must not be
    // lost even then: a result file put in place. Main thread.
    std::function<void()> beforeImmediateExit;
};
