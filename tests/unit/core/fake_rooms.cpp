#include "core/fake_rooms.hpp"

#include "api/tunnel_records.hpp"
#include "api/wan_state.hpp"
#include "fake/fake_platform.hpp"
#include "gre/gre_creation.hpp"
#include "gre/gre_teardown.hpp"
#include "ipsec/ipsec_manager.hpp"
#include "ovpn/conf.hpp"
#include "ovpn/ovpn_tnl.hpp"

#include <gtest/gtest.h>

namespace fake {

namespace {

void recordCall(const std::string& entry) {
  record(entry);
  if (rooms.onCall) {
    rooms.onCall(entry);
  }
}

std::string compact(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

}  // namespace

Rooms rooms;

}  // namespace fake

namespace tunnel_mngr {

bool discoverGreTunnels(Json::Value& tunnels, std::vector<std::string>& names) {
  EXPECT_EQ(tunnels, Json::Value(Json::arrayValue));
  EXPECT_TRUE(names.empty());
  fake::recordCall("discoverGreTunnels");
  names = fake::rooms.existingTunnels;
  return fake::rooms.discovers;
}

bool destroyGreTunnel(const std::string& name) {
  fake::recordCall("destroyGreTunnel " + name);
  return fake::rooms.destroys;
}

bool createGreTunnel(const Json::Value& entry) {
  fake::recordCall("createGreTunnel " + fake::compact(entry));
  return fake::rooms.creates;
}

std::string getCurrentWanIp() {
  fake::recordCall("getCurrentWanIp");
  return fake::rooms.wanIp;
}

bool pullConfigurations(Json::Value& greTunnels, Json::Value& ipsecTunnels) {
  EXPECT_EQ(greTunnels, Json::Value(Json::arrayValue));
  EXPECT_EQ(ipsecTunnels, Json::Value(Json::arrayValue));
  fake::recordCall("pullConfigurations");
  greTunnels = fake::rooms.greTunnels;
  ipsecTunnels = fake::rooms.ipsecTunnels;
  return fake::rooms.pulls;
}

IpsecManager& ipsecManager() {
  static IpsecManager manager;
  return manager;
}

void IpsecManager::stopIpsec() {
  fake::recordCall("stopIpsec");
}

void IpsecManager::setupIpsecTunnels(const std::string& localAddress, const Json::Value& tunnels) {
  fake::recordCall("setupIpsecTunnels " + localAddress + " " + fake::compact(tunnels));
}

bool Conf::init() {
  fake::recordCall("Conf::init");
  return fake::rooms.readsConf;
}

void startOvpnTunnels() {
  fake::recordCall("startOvpnTunnels");
}

void stopOvpnTunnels() {
  fake::recordCall("stopOvpnTunnels");
}

void checkOvpnTunnels() {
  fake::recordCall("checkOvpnTunnels");
}

}  // namespace tunnel_mngr
