// The binary contract: plug-ins built against this contract call these
// operations by their vtable slots, so each slot keeps its index.
#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>
#include <string>

#include "host/confirmation.h"
#include "host/kernel_setters.h"
#include "host/policy.h"
#include "host/policy_manager.h"
#include "test_policies.h"

namespace {

using boost::property_tree::ptree;
using hostpolicytest::Slot;
using hostpolicytest::SlotValue;

TEST(PolicyAbi, IPolicyOperationsKeepTheirSlots) {
  EXPECT_EQ(SlotValue(&IPolicy::Source), Slot(3));
  EXPECT_EQ(SlotValue(&IPolicy::SetSource), Slot(4));
  EXPECT_EQ(SlotValue(&IPolicy::ResetSource), Slot(5));
  EXPECT_EQ(SlotValue(&IPolicy::ResetSourceByName), Slot(6));
  EXPECT_EQ(SlotValue(&IPolicy::Type), Slot(7));
  EXPECT_EQ(SlotValue(&IPolicy::Value), Slot(8));
  EXPECT_EQ(SlotValue(static_cast<void (IPolicy::*)(const std::string&)>(
                &IPolicy::SetValue)),
            Slot(9));
  EXPECT_EQ(SlotValue(static_cast<void (IPolicy::*)(const ptree&)>(
                &IPolicy::SetValue)),
            Slot(10));
  EXPECT_EQ(SlotValue(&IPolicy::DefaultValue), Slot(11));
  EXPECT_EQ(SlotValue(&IPolicy::ValueNodeName), Slot(12));
  EXPECT_EQ(SlotValue(&IPolicy::Name), Slot(13));
  EXPECT_EQ(SlotValue(&IPolicy::Description), Slot(14));
  EXPECT_EQ(SlotValue(&IPolicy::ValueDescriptions), Slot(15));
  EXPECT_EQ(SlotValue(&IPolicy::GetXml), Slot(16));
  EXPECT_EQ(SlotValue(&IPolicy::Apply), Slot(17));
  EXPECT_EQ(SlotValue(&IPolicy::IsChanged), Slot(18));
  EXPECT_EQ(SlotValue(&IPolicy::Init), Slot(19));
}

TEST(PolicyAbi, LocalPolicyOverridesStayInIPolicySlots) {
  EXPECT_EQ(SlotValue(&LocalPolicy::Source), Slot(3));
  EXPECT_EQ(SlotValue(&LocalPolicy::Apply), Slot(17));
  EXPECT_EQ(SlotValue(&LocalPolicy::IsChanged), Slot(18));
}

TEST(PolicyAbi, KernelPolicyAddsThreeSlotsAfterIPolicy) {
  EXPECT_EQ(SlotValue(&KernelPolicy::Init), Slot(19));
  EXPECT_EQ(SlotValue(&KernelPolicy::RequestGetter), Slot(20));
  EXPECT_EQ(SlotValue(&KernelPolicy::DbPolicyName), Slot(21));
  EXPECT_EQ(SlotValue(&KernelPolicy::ApplyKernelValue), Slot(22));
}

TEST(PolicyAbi, PolicyManagerOperationsKeepTheirOrder) {
  EXPECT_EQ(SlotValue(&PolicyManager::GetPoliciesXml), Slot(3));
  EXPECT_EQ(SlotValue(&PolicyManager::GetPoliciesJson), Slot(4));
  EXPECT_EQ(SlotValue(&PolicyManager::SetPoliciesXml), Slot(5));
  EXPECT_EQ(SlotValue(&PolicyManager::SetPoliciesJson), Slot(6));
  EXPECT_EQ(SlotValue(&PolicyManager::AddPolicy), Slot(7));
  EXPECT_EQ(SlotValue(&PolicyManager::IsChanged), Slot(8));
  EXPECT_EQ(SlotValue(&PolicyManager::GetPolicy), Slot(9));
  EXPECT_EQ(SlotValue(&PolicyManager::ApplyPolicies), Slot(10));
  EXPECT_EQ(SlotValue(static_cast<void (PolicyManager::*)()>(
                &PolicyManager::ResetSource)),
            Slot(11));
  EXPECT_EQ(SlotValue(&PolicyManager::ResetPolicySource), Slot(12));
  EXPECT_EQ(SlotValue(&PolicyManager::ResetSourceByName), Slot(13));
  EXPECT_EQ(SlotValue(&PolicyManager::FilterParams), Slot(14));
  EXPECT_EQ(SlotValue(&PolicyManager::SavePolicies), Slot(15));
}

TEST(PolicyAbi, KernelPolicyManagerOverridesNoSlot) {
  // Same slots through the derived class: nothing was inserted before them.
  EXPECT_EQ(SlotValue(&KernelPolicyManager::FilterParams), Slot(14));
  EXPECT_EQ(SlotValue(&KernelPolicyManager::SavePolicies), Slot(15));
}

TEST(PolicyAbi, KernelSetterOperationsKeepTheirSlots) {
  EXPECT_EQ(SlotValue(&IKernelStateSetter::IsChanged), Slot(3));
  EXPECT_EQ(SlotValue(&IKernelStateSetter::ChildApply), Slot(4));
  EXPECT_EQ(SlotValue(&KernelModeStateSetter::IsChanged), Slot(3));
  EXPECT_EQ(SlotValue(&KernelModeStateSetter::ChildApply), Slot(4));
}

TEST(PolicyAbi, ConfirmationOperationsKeepTheirSlots) {
  EXPECT_EQ(SlotValue(&Confirmation::HandlerInit), Slot(3));
  EXPECT_EQ(SlotValue(&Confirmation::HandlerWaitForConfirmation), Slot(4));
  EXPECT_EQ(SlotValue(&Confirmation::HandlerConfirmed), Slot(5));
  EXPECT_EQ(SlotValue(&Confirmation::HandlerNotConfirmed), Slot(6));
  EXPECT_EQ(SlotValue(&Confirmation::WriteState), Slot(7));
  EXPECT_EQ(SlotValue(&Confirmation::CanModifyState), Slot(8));
  EXPECT_EQ(SlotValue(&Confirmation::LoadState), Slot(9));
  EXPECT_EQ(SlotValue(&Confirmation::IsFreshBoot), Slot(10));
  EXPECT_EQ(SlotValue(&Confirmation::MarkBoot), Slot(11));
  EXPECT_EQ(SlotValue(&LockFileConfirmation::WriteState), Slot(7));
  EXPECT_EQ(SlotValue(&LockFileConfirmation::CanModifyState), Slot(8));
}

}  // namespace
