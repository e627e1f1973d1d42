#include "system/processor.h"

#include "recorded_cpuid.h"

#include <gtest/gtest.h>

namespace {

using qor::system::read_hypervisor;
using qor::system::read_processor;
using qor::test::bare_xeon;
using qor::test::epyc_in_kvm;
using qor::test::recorded_cpuid;

// The values that the kernel of the same host shows in /proc/cpuinfo.
TEST(processor, by_name_family_model_and_stepping) {
    EXPECT_EQ(read_processor(epyc_in_kvm()).type, "AMD EPYC");
    EXPECT_EQ(read_processor(epyc_in_kvm()).extended,
              "AuthenticAMD family 26 model 2 stepping 1: ssse3 sse4_1 sse4_2 avx f16c fma avx2 avx_vnni avx512f "
              "avx512dq avx512ifma avx512cd avx512bw avx512vl avx512vbmi avx512_vbmi2 avx512_vnni avx512_bitalg "
              "avx512_vpopcntdq avx512_bf16");
    EXPECT_EQ(read_processor(bare_xeon()).type, "Intel(R) Xeon(R) CPU E5-2680 v4 @ 2.40GHz");
    EXPECT_EQ(read_processor(bare_xeon()).extended,
              "GenuineIntel family 6 model 79 stepping 1: ssse3 sse4_1 sse4_2 avx f16c fma avx2");
}

TEST(processor, extensions_whose_registers_the_system_does_not_keep_cannot_be_used) {
    recorded_cpuid source = epyc_in_kvm();
    source.kept = 0x07;
    EXPECT_TRUE(read_processor(source).extended.ends_with(" fma avx2 avx_vnni")) << read_processor(source).extended;
    source.kept = 0x03;
    EXPECT_TRUE(read_processor(source).extended.ends_with(" sse4_1 sse4_2")) << read_processor(source).extended;
}

TEST(processor, registers_are_not_asked_for_where_the_system_keeps_none) {
    recorded_cpuid source = epyc_in_kvm();
    source.leaves[{1, 0}].c &= ~(uint32{1} << 27);
    EXPECT_TRUE(read_processor(source).extended.ends_with(" sse4_1 sse4_2"));
}

TEST(processor, padding_of_its_name_goes) {
    recorded_cpuid source = bare_xeon();
    source.leaves[{0x80000002, 0}] = {0x20202020, 0x746e4920, 0x20206c65, 0x20202020}; // "     Intel      "
    source.leaves[{0x80000003, 0}] = {0x6f655820, 0x2020206e, 0x20202020, 0x00202020}; // " Xeon          "
    EXPECT_EQ(read_processor(source).type.substr(0, 10), "Intel Xeon");
}

TEST(processor, without_a_name_its_maker_stands_in) {
    recorded_cpuid source;
    source.leaves[{0, 0}] = {1, 0x756e6547, 0x6c65746e, 0x49656e69};
    source.leaves[{1, 0}] = {0x00000543, 0, 0, 0}; // a Pentium: models have four bits
    EXPECT_EQ(read_processor(source).type, "GenuineIntel");
    EXPECT_EQ(read_processor(source).extended, "GenuineIntel family 5 model 4 stepping 3");
}

TEST(processor, without_cpuid_nothing_is_known) {
    EXPECT_EQ(read_processor({recorded_cpuid()}).type, "");
    EXPECT_EQ(read_processor({recorded_cpuid()}).extended, "");
}

TEST(hypervisor, none_without_its_bit) {
    recorded_cpuid source = bare_xeon();
    source.leaves[{0x40000000, 0}] = {0x07, 0x340, 0x340, 0}; // an unknown leaf has the data of the last one
    EXPECT_FALSE(read_hypervisor(source).is_there);
}

TEST(hypervisor, by_its_signature) {
    const std::pair<const char*, const char*> known[] = {
        {"KVMKVMKVM", "KVM"},          {"Linux KVM Hv", "KVM"},        {"VMwareVMware", "VMware"},
        {"XenVMMXenVMM", "Xen"},       {"VBoxVBoxVBox", "VirtualBox"}, {"TCGTCGTCGTCG", "QEMU"},
        {"bhyve bhyve ", "bhyve"},     {"ACRNACRNACRN", "ACRN"},       {"Microsoft Hv", "Hyper-V"},
        {" lrpepyh  vr", "Parallels"}, {"NobodyKnowsI", ""},
    };
    for (const auto& [signature, name] : known) {
        const auto found = read_hypervisor(bare_xeon().add_hypervisor(signature));
        EXPECT_TRUE(found.is_there) << signature;
        EXPECT_FALSE(found.is_ours) << signature;
        EXPECT_EQ(found.name, name) << signature;
    }
}

TEST(hypervisor, behind_an_emulation_of_hyper_v) {
    for (const auto& [signature, name] : {std::pair{"KVMKVMKVM", "KVM"}, {"XenVMMXenVMM", "Xen"}}) {
        recorded_cpuid source = bare_xeon();
        source.add_hypervisor("Microsoft Hv").add_hypervisor(signature, 0x40000100);
        source.leaves[{0x40000003, 0}].b = 0x1001; // for Hyper-V this would mean the host
        EXPECT_EQ(read_hypervisor(source).name, name);
        EXPECT_FALSE(read_hypervisor(source).is_ours);
    }
}

TEST(hypervisor, the_host_of_hyper_v_is_no_guest) {
    recorded_cpuid source = bare_xeon();
    source.add_hypervisor("Microsoft Hv");
    source.leaves[{0x40000003, 0}] = {0x00003fff, 0x002bb9ff, 0, 0}; // the root partition of a desktop
    EXPECT_TRUE(read_hypervisor(source).is_ours);
    source.leaves[{0x40000003, 0}] = {0x00002e7f, 0x00003070 & ~0x1000u, 0, 0}; // a guest
    EXPECT_FALSE(read_hypervisor(source).is_ours);
    source.leaves[{0x40000003, 0}].b = 0x00403070; // isolated: its paravisor controls the processors for it
    EXPECT_FALSE(read_hypervisor(source).is_ours);
}

} // namespace
