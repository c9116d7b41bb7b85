include $(sort $(wildcard $(BR2_EXTERNAL_ZEL_HTTP_PATH)/package/*/*.mk))
