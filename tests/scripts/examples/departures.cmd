run ../../../examples/departures/autorun.plm
