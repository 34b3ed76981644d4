global-incdirs-y += .
global-incdirs_ext-y += ../common ../../platform/wsm ../../src/interface
srcs-y += secure_processor_ta.c
srcs_ext_base-y := ../..
srcs_ext-y += ta/common/der.c ta/common/ta_request.c ta/common/ta_store.c platform/wsm/wsm_core.c
