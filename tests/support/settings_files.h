// The settings file as the tests write it: its bytes, and texts built from maps, for the tests that
// set up or look at the proxy maps in the file; and the file that makes every destination go direct,
// for tests that determine beside a UI library whose first-use prompt nobody would answer. Callers
// hold the settings_store lock.
#pragma once

#include <string>

namespace dxtest {

// The file's frame ahead of the root element.
extern const char kSettingsHead[];

// Writes `bytes` as the whole settings file, making its folder; false on failure.
bool WriteSettingsBytes(const std::string& bytes);
// The settings file's bytes; empty when there is none.
std::string ReadSettingsBytes();
bool SettingsFileExists();

// One value element: <name value="..."/>, the value set down as it stands.
std::string Value(const std::string& name, const std::string& value);
// <Map id="...">elements</Map>.
std::string MapElement(const std::string& id, const std::string& elements);
// The eight value elements of a numbered map, or the six of the default one, in the writer's order.
std::string FullMap(const std::string& id, const std::string& destination, const std::string& destinationPort,
                    const std::string& proxy, const std::string& proxyPort, const std::string& user,
                    const std::string& version, const std::string& basic, const std::string& use);
// <Proxy type="..."><Maps count="...">maps</Maps></Proxy>.
std::string ProxyElement(const std::string& type, const std::string& count, const std::string& maps);
// <Settings version="25..2..0"><Proxies>proxies</Proxies></Settings>.
std::string SettingsElement(const std::string& proxies);

// A settings file whose only map in each family is a default one without a proxy: a determination
// answers 0 without a prompt. False when it cannot be written.
bool WriteDirectSettings();

}  // namespace dxtest
