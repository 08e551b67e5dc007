run ../../../examples/playlist/autorun.plm
