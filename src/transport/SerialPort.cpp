#include "SerialPort.h"

SerialPort::SerialPort() : logger(&LoggerManager::getInstance()) {}

SerialPort::~SerialPort() = default;
