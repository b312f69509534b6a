#!/bin/bash
# exported_symbols_test.sh LIBTAVROTP: the shared library shows the functions of its interface and nothing else, runs
# no code of its own when it is loaded, and has no way to print or to start a thread.
set -u
library=$1
failed=0

shown=$(nm -D --defined-only "$library" | awk '{ print $3 }' | LC_ALL=C sort)
if ! diff <(cat <<'NAMES'
_Z19OTPEnforceIsEnabledRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE
_Z26OTPEnforceCustomSettingSetRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEERKN4Json5ValueE
_Z27OTPEnforceCustomSettingListiiRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES6_S6_S6_RiRN4Json5ValueE
_ZN16OTPWizardHandler10SetSuccessEb
_ZN16OTPWizardHandler11AuthOTPcodeEPKcj
_ZN16OTPWizardHandler11GetResponseEv
_ZN16OTPWizardHandler13GetQRcodePageEPKcj
_ZN16OTPWizardHandler15AuthUserAccountEPKcS1_bb
_ZN16OTPWizardHandler15EditAccountNameEPKcS1_
_ZN16OTPWizardHandler8SaveMailEPKc
_ZN16OTPWizardHandler8SetErrorEPKcS1_i
_ZN16OTPWizardHandlerC1Ev
_ZN16OTPWizardHandlerC2Ev
_ZN16OTPWizardHandlerD1Ev
_ZN16OTPWizardHandlerD2Ev
_ZN18MailOtpCodeHandler16GetEmergencyCodeEPKcPcmRN4Json5ValueE
_ZN18MailOtpCodeHandler17HandleSendRequestEPKcRN4Json5ValueE
_ZN18MailOtpCodeHandler20SendNotificationMailEPKcS1_S1_RN4Json5ValueE
_ZN18MailOtpCodeHandlerC1Ev
_ZN18MailOtpCodeHandlerC2Ev
_ZN18MailOtpCodeHandlerD1Ev
_ZN18MailOtpCodeHandlerD2Ev
_ZN8OTPUtils11AuthOTPcodeEPKcS1_S1_
_ZN8OTPUtils11GetUserMailEPKcPcm
_ZN8OTPUtils11SetUserMailEPKcS1_
_ZN8OTPUtils12GenQRcodePNGENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES5_RS5_
_ZN8OTPUtils12GenQRcodePNGENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES5_RS5_b
_ZN8OTPUtils13MoveTmpSecretEPKcS1_
_ZN8OTPUtils15CreateSecretKeyEjRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES6_
_ZN8OTPUtils15GetLDAPUserMailEPKcPcm
_ZN8OTPUtils16GetUserSecretKeyEPKcRNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES8_
_ZN8OTPUtils17GetDomainUserMailEPKcPcm
_ZN8OTPUtils17GetNormalUserMailEPKcPcm
_ZN8OTPUtils17SetDomainUserMailEPKcS1_
_ZN8OTPUtils17SetNormalUserMailEPKcS1_
NAMES
) <(echo "$shown"); then
    echo "expected on the left, shown by the library on the right"
    failed=1
fi

if nm "$library" | grep _GLOBAL__sub_I; then
    echo "objects with a static initialiser"
    failed=1
fi

if nm -D --undefined-only "$library" | awk '{ print $2 }' | sed 's/@.*//' |
    grep -xE '(__)?(v?f?printf|puts|fputs|putchar|perror|openlog|pthread_create|system|popen|fork|vfork|posix_spawnp?)(_chk)?|_ZSt4(cout|cerr|clog)|_ZNSt6thread.*'; then
    echo "calls that the library must not make"
    failed=1
fi
exit $failed
