include $(sort $(wildcard $(BR2_EXTERNAL_TESSERA_PATH)/package/*/*.mk))
