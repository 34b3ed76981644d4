global-incdirs-y += .
global-incdirs_ext-y += ../common ../../platform/wsm ../../src/interface
srcs-y += secure_processor_ta.c
srcs_ext_base-y := ../..
srcs_ext-y += ta/common/der.c ta/common/ta_request.c ta/common/ta_store.c platform/wsm/wsm_core.c
# make ZEL_PLANTED_TA_PANIC=y: the fuzzer's planted panic (scripts/optee-tas.sh --planted).
cppflags-$(ZEL_PLANTED_TA_PANIC) += -DZEL_PLANTED_TA_PANIC
