#pragma once

#include "LinkSession.h"
#include "SimulatedBoardTest.h"

#include <memory>

namespace testsupport {

// The simulated board with the board flows connected to it on its
// pseudo-terminal, as merid-flash drives them.
class LinkedBoardTest : public SimulatedBoardTest {
protected:
    // The board with `device` on it, connected.
    void plug(SimDevice device) {
        simulator.addDevice(std::move(device));
        ASSERT_TRUE(simulator.start()) << simulator.lastError();
        session = std::make_unique<LinkSession>(simulator.slavePath());
        ASSERT_EQ(session->usb().connect(UsbCommunication::MethodCom), UsbTypes::Ok);
    }

    void TearDown() override {
        session.reset();
        SimulatedBoardTest::TearDown();
    }

    std::unique_ptr<LinkSession> session;
};

} // namespace testsupport
