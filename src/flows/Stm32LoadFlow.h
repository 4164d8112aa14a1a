#pragma once

#include "BoardLink.h"
#include "EraseCmd.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

// The STM32 load: a search, the wait for the device and its "erase" field,
// the erase command word written into that field, and the transfer that the
// device's confirmation of the erase starts. Success is only the device's
// answer to the finish step.
//
// The wait runs on a clock the caller drives (tick(), every kTick): it asks
// again every kRetryTicks ticks and gives up after kWaitTicks. The erase goes
// out as soon as the device has described its "erase" field, from the
// receive path, or at the next tick, whichever comes first. Nothing here
// blocks; the events come on the thread that caused them.
class Stm32LoadFlow {
public:
    enum class WaitEnd { LinkLost, NoDevice, NoEraseField };
    enum class EraseFault { NoDevice, NoEraseField, NoFieldInfo };
    enum class Stage { Idle, Waiting, EraseCommand, EraseStep, Writing };

    struct Events {
        // The clock's thread: the wait ended without an erase.
        std::function<void(WaitEnd)> waitEnded;
        // The erase command could not be written; the load stops.
        std::function<void(EraseFault)> eraseFailed;
        // The listener thread, once the device has confirmed the erase: the
        // image to send; empty for none.
        std::function<std::string()> imagePath;
    };

    static constexpr std::chrono::milliseconds kTick{200};
    static constexpr int kRetryTicks = 5;
    static constexpr int kWaitTicks = 51;

    Stm32LoadFlow(BoardLink& link, Events events);
    ~Stm32LoadFlow();
    Stm32LoadFlow(const Stm32LoadFlow&) = delete;
    Stm32LoadFlow& operator=(const Stm32LoadFlow&) = delete;

    // The press of upload: the threads started, a search sent, the wait
    // begun (or, during a wait, its budget begun again).
    void start();
    // One tick of the wait's clock; false once the wait is over.
    bool tick();
    // The device confirmed the erase (the listener thread): the image goes.
    // False when there is none.
    bool onEraseConfirmed();

    // The transfer's percentage: 100 only on the device's confirmation.
    unsigned percent();
    // True once for each finish step that was refused, left unanswered or
    // cut off with the link.
    bool takeUnconfirmed();
    // The status of the step the device refused last in this load; 0 for none.
    std::uint8_t refusal() const { return refused.load(); }
    Stage stage();
    // Bytes of the image the device has confirmed.
    std::uint32_t offset();

private:
    void onAnswer(std::uint8_t status);
    bool continueWait(const std::function<void()>& request, WaitEnd end);
    bool eraseWhenDescribed();
    void sendErase(std::uint8_t device);
    std::recursive_mutex& modelMutex() { return link.devices().getMutex(); }

    BoardLink& link;
    Events events;
    // Under the model's lock: the clock and the receive path both end the wait.
    bool waiting = false;
    int waitTicks = 0;
    bool eraseSent = false;
    bool transferStarted = false;
    std::atomic<std::uint8_t> refused{0};
};
