global-incdirs-y += .
global-incdirs_ext-y += ../common ../../platform/wsm ../../src/interface
srcs-y += vault_ta.c vault_commands.c vault_objects.c vault_crypto.c
srcs_ext_base-y := ../..
srcs_ext-y += ta/common/ta_request.c ta/common/ta_store.c ta/common/der.c platform/wsm/wsm_core.c
