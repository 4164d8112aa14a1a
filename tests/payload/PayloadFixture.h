#pragma once

#include "GlobalHandlerEvents.h"
#include "PayloadHandler.h"
#include "PayloadTestKit.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

// A handler with a capturing log and an empty handler registry, plus the
// steps that bring a device and its fields into the model by real answers.
class PayloadFixture : public ::testing::Test {
protected:
    using Bytes = payloadkit::Bytes;

    void SetUp() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }
    void TearDown() override { GlobalHandlerEvents::getInstance().clearAllHandlers(); }

    // Searches and lets device `address` answer; returns the answer's pack.
    std::uint8_t discover(std::uint8_t address, std::uint8_t fieldCount, const std::string& name = "Board") {
        handler.onMessage(SEARCH_DEVICES_MSG, nullptr);
        handler.generateResponse(SEARCH_DEVICES_MSG);
        payloadkit::drain(handler);
        const std::uint8_t pack = handler.getPackNumber();
        payloadkit::feed(handler, payloadkit::deviceInfoAnswer(pack, address, name, fieldCount));
        return pack;
    }

    // Asks device `address` for its fields and answers each request in turn.
    void describeFields(std::uint8_t address,
                        const std::vector<std::pair<std::uint8_t, std::string>>& fields) {
        MessageArgs args;
        args.device = address;
        handler.onMessage(FIELD_INFO_MSG, &args);
        handler.generateResponse(FIELD_INFO_MSG);
        for (const auto& field : fields) {
            auto sent = payloadkit::drain(handler);
            ASSERT_EQ(sent.size(), 1u);
            payloadkit::feed(handler, payloadkit::fieldInfoAnswer(handler.getPackNumber(), address,
                                                                  field.first, field.second));
        }
        payloadkit::drain(handler);
    }

    testsupport::CapturingLogger log;
    PayloadHandler handler;
};
