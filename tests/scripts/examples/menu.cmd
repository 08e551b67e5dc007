run ../../../examples/menu/autorun.plm
