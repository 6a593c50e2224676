// taze_util
