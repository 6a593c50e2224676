// taze_ptn
