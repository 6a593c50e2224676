// taze
