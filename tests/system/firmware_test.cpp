#include "system/facts.h"

#include <gtest/gtest.h>

namespace {

using qor::system::find_hypervisor;
using qor::system::firmware;
using qor::system::name_hypervisor;

std::string name(const firmware& machine) {
    const char* const found = find_hypervisor(machine);
    return found != nullptr ? found : "";
}

TEST(firmware, of_virtual_machines) {
    EXPECT_EQ(name({"KVM", "Red Hat", "", "SeaBIOS", "RHEL-8.6.0", {}}), "KVM");
    EXPECT_EQ(name({"Standard PC (Q35 + ICH9, 2009)", "QEMU", "", "SeaBIOS", "pc-q35-7.2", {}}), "QEMU");
    EXPECT_EQ(name({"VMware Virtual Platform", "VMware, Inc.", "Intel Corporation", "Phoenix", "None", {}}), "VMware");
    EXPECT_EQ(name({"VirtualBox", "innotek GmbH", "Oracle Corporation", "innotek GmbH", "1.2", {}}), "VirtualBox");
    EXPECT_EQ(name({"Virtual Machine", "Microsoft Corporation", "Microsoft Corporation", "Microsoft", "", {}}),
              "Hyper-V");
    EXPECT_EQ(name({"HVM domU", "Xen", "", "Xen", "4.11.amazon", {}}), "Xen");
    EXPECT_EQ(name({"m5.large", "Amazon EC2", "Amazon EC2", "Amazon EC2", "", {}}), "Amazon EC2");
    EXPECT_EQ(name({"", "", "", "", "", true}), "unknown hypervisor");
}

TEST(firmware, of_real_machines) {
    EXPECT_EQ(name({"PowerEdge R740", "Dell Inc.", "Dell Inc.", "Dell Inc.", "", false}), "");
    EXPECT_EQ(name({"ORACLE SERVER X7-2", "Oracle Corporation", "Oracle Corporation", "AMI", "", {}}), "");
    EXPECT_EQ(name({"Surface Laptop 4", "Microsoft Corporation", "Microsoft Corporation", "Microsoft", "", {}}), "");
    EXPECT_EQ(name({}), "");
}

TEST(firmware, clouds_let_real_machines_under_the_same_name) {
    EXPECT_EQ(name({"c6g.metal", "Amazon EC2", "Amazon EC2", "Amazon EC2", "", {}}), "");
    EXPECT_EQ(name({"c6g.large", "Amazon EC2", "Amazon EC2", "Amazon EC2", "", false}), "");
    EXPECT_EQ(name({"c6g.metal", "Amazon EC2", "Amazon EC2", "Amazon EC2", "", true}), "Amazon EC2");
    EXPECT_EQ(name({"Google Compute Engine", "Google", "Google", "Google", "", true}), "Google Compute Engine");
}

TEST(firmware, with_what_the_processor_says) {
    const firmware real = {"PowerEdge R740", "Dell Inc.", "", "", "", {}};
    const firmware guest = {"Virtual Machine", "Microsoft Corporation", "", "", "", {}};
    EXPECT_EQ(name_hypervisor({}, real), "");
    EXPECT_EQ(name_hypervisor({true, false, "KVM"}, real), "KVM");
    EXPECT_EQ(name_hypervisor({true, false, ""}, real), "unknown hypervisor");
    EXPECT_EQ(name_hypervisor({true, true, "Hyper-V"}, real), "");
    EXPECT_EQ(name_hypervisor({true, true, "Hyper-V"}, guest), "Hyper-V"); // a host of guests that is a guest itself
    EXPECT_EQ(name_hypervisor({}, guest), "Hyper-V");                      // a hypervisor that hides its bit
}

} // namespace
