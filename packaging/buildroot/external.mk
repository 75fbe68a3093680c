include $(sort $(wildcard $(BR2_EXTERNAL_PFB_PATH)/*/*.mk))
